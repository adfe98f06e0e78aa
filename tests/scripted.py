"""Runs of the tool on the scripted runtime, whose script runtime/scripted/script.h explains."""

from tool import BUILD, TEARDOWN, ToolTest

SCRIPTED_RUNTIME = str(BUILD / "scripted")

TASK_AND_WORK = "input task 4 8 8 1 8\ninput work 4 16 16 1 16\n"
PLAIN = "input x 4 16 8 2 4\n" + TASK_AND_WORK + "output y 4 16 8 2 4\n"
UNLOADED = "[INFO]  unload model success, modelId is 4000000077\n"
SUCCESS = UNLOADED + "[INFO]  execute sample success\n" + TEARDOWN
FAILURE = UNLOADED + "[ERROR] sample process failed\n" + TEARDOWN
STAGING_FAILED = "[ERROR] get pic device buffer failed\n[ERROR] CreateInputBuf failed\n" + FAILURE

# Messages and the first releases in the order in which they come.
SAY_FREED = "run quilm_rt_free 1 echo freed\n"
SAY_DESTROYED = "run quilm_destroy_data_buffer 1 echo destroyed\n"


class ScriptedRuntimeTest(ToolTest):
    def arguments(self, script, *options, data=bytes(range(1, 9)), list_text="x.bin\n"):
        """Writes the files of a run and returns the tool's arguments for it."""
        self.write("m.om", "model")
        self.write("x.bin", data)
        self.write("list.txt", list_text)
        self.write("script.cfg", f"log {self.dir}/calls\n" + script)
        return ["-m", "m.om", "-i", "list.txt", "-j", "script.cfg", "-o", "out", *options]

    def start_scripted(self, *arguments, limit=None, within=(), library=SCRIPTED_RUNTIME, **files):
        """(status, masked stdout, stderr)"""
        return self.run_tool(*self.arguments(*arguments, **files), library=library, preexec_fn=limit,
                             within=within)

    def run_scripted(self, *arguments, complaint="(?!)", **options):
        """(status, masked stdout) of a run that gets to its end, where the host runtime finds nothing
        to complain of, such as leftovers, but `complaint`."""
        status, out, err = self.start_scripted(*arguments, **options)
        self.assertRegex(err, rf"^({complaint}\n)*$")
        self.assertTrue(self.calls().endswith("quilm_finalize\n"), self.calls())
        return status, out

    def calls(self):
        return (self.dir / "calls").read_text()

    def check(self, expected_status, expected_tail, script, *options, **files):
        status, out = self.run_scripted(script, *options, **files)
        self.assertTrue(out.endswith(expected_tail), out)
        self.assertEqual(status, expected_status)

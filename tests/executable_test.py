"""The built executable: what it needs, what it exports, and that its log is complete."""

import os
import platform
import re
import signal
import subprocess
import time
import unittest

import tool


def read(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout


class Executable(unittest.TestCase):
    def test_exports_exactly_six_protobuf_c_symbols(self):
        symbols = re.findall(r"^\w+ ([A-Z]) (protobuf_c\w+)$",
                             read("nm", "-D", "--defined-only", tool.QUILMRUN), re.M)
        self.assertEqual(sorted(symbols), [
            (kind, "protobuf_c_" + name) for kind, name in [
                ("R", "empty_string"), ("T", "message_free_unpacked"),
                ("T", "message_get_packed_size"), ("T", "message_pack"),
                ("T", "message_pack_to_buffer"), ("T", "message_unpack")]])

    def test_needs_the_library_by_name_and_gives_way_to_another(self):
        dynamic = read("readelf", "-d", tool.QUILMRUN)
        self.assertIn("Shared library: [libquilm.so]", dynamic)
        self.assertIn("(RUNPATH)            Library runpath: [$ORIGIN:$ORIGIN/../lib]", dynamic)
        self.assertNotIn("(RPATH)", dynamic)
        self.assertNotIn("protobuf", dynamic)

    @unittest.skipIf("debug" in tool.QUILMRUN, "checked where no sanitizer checks more")
    def test_is_hardened(self):
        library = os.path.join(os.path.dirname(tool.QUILMRUN), "libquilm.so")
        self.assertIn("DYN (Position-Independent Executable file)",
                      read("readelf", "-h", tool.QUILMRUN))
        for name in (tool.QUILMRUN, library):
            self.assertIn("GNU_RELRO", read("readelf", "-lW", name))
            self.assertRegex(read("readelf", "-dW", name), r"\(FLAGS(_1)?\).*NOW")
            imports = read("nm", "-D", "--undefined-only", name)
            self.assertIn("__stack_chk_fail", imports)
            self.assertRegex(imports, r"__\w+_chk@")
        if platform.machine() == "x86_64":
            with open(library, "rb") as code:  # endbr64 where a call by pointer may arrive
                self.assertGreater(code.read().count(b"\xf3\x0f\x1e\xfa"), 40)

    def test_host_runtime_leaves_protobuf_c_to_the_executable(self):
        library = os.path.join(os.path.dirname(tool.QUILMRUN), "libquilm.so")
        self.assertIn("Library soname: [libquilm.so]", read("readelf", "-d", library))
        asked = re.findall(r" U (protobuf_c_\w+)$", read("nm", "-D", library), re.M)
        given = read("nm", "-D", "--defined-only", tool.QUILMRUN)
        self.assertEqual(sorted(asked), sorted(re.findall(r" (protobuf_c_\w+)$", given, re.M)))
        exported = re.findall(r"^\w+ [TDBRVW] (\w+)", read("nm", "-D", "--defined-only", library),
                              re.M)
        header = read("cat", os.path.join(os.path.dirname(__file__), "../runtime/quilm.h"))
        self.assertEqual(sorted(exported), sorted(set(re.findall(r"\b(quilm_\w+)\(", header))))


class Log(tool.ToolTest):
    def test_is_complete_when_the_run_is_killed(self):
        os.mkfifo(self.dir / "list.txt")
        log = open(self.dir / "log.txt", "wb")
        self.addCleanup(log.close)
        process = subprocess.Popen([os.path.abspath(tool.QUILMRUN), "-b", "2", "-m", "/m.om", "-i",
                                    "list.txt"], cwd=self.dir, stdout=log)
        deadline = time.monotonic() + 20
        while (self.dir / "log.txt").stat().st_size == 0 and time.monotonic() < deadline:
            time.sleep(0.01)
        time.sleep(0.1)  # it now waits for somebody to write the list
        process.send_signal(signal.SIGKILL)
        process.wait()
        self.assertEqual((self.dir / "log.txt").read_text(),
                         "[INFO]  batchSize: 2\n[INFO]  inputPath: /m.om\n")


if __name__ == "__main__":
    unittest.main()

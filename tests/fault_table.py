"""Every runtime call of a run on the host runtime, in order, and what has to come of its failure.

A run is described by what its user knows: the model's inputs and outputs, the files, the options.
From that, calls() derives the whole sequence; nothing here is read off the program's output.
"""

import dataclasses

STATUS_FAULT = 507
PROCESS = ("sample process failed",)
NOT_INITIALISED = ("sample init resource failed",)


@dataclasses.dataclass
class Run:
    inputs: dict             # {name: bytes of one batch} of the data inputs and, last, that of -r
    outputs: dict            # {name: bytes}
    groups: int
    model_size: int = 0
    executions: int = 1


@dataclasses.dataclass
class Call:
    function: str
    errors: tuple = ()       # the [ERROR] lines, innermost first, without prefix
    explained: tuple = ()    # what the host runtime says, failure or leftovers
    group: int = None        # the first group that does not complete; None: all do
    without: str = None      # output files of this prefix are missing, or
    differs: str = None      # may hold other values, or
    renamed: tuple = ()      # bear another name: (from, to)

    @property
    def code(self):
        """What the failing call returns, where it is no pointer."""
        if self.function.endswith("data_type"):
            return -1
        questions = ("_get_num_", "_get_dataset_num_", "size_by_index", "stride", "format",
                     "data_type_size", "buffer_size")
        return 0 if any(word in self.function for word in questions) else STATUS_FAULT

    @property
    def status(self):
        return 1 if {*PROCESS, *NOT_INITIALISED} & {*self.errors} else 0


def left(count, kind):
    return f"still there at quilm_finalize: {count} x {kind}"


MEMORY, BUFFER = "block of device memory", "data buffer"


def bring_up():
    rows = [("quilm_init", "quilm init failed"), ("quilm_rt_set_device", "quilm open device 0 failed"),
            ("quilm_rt_set_op_wait_timeout", "quilm set op wait time failed"),
            ("quilm_rt_create_context", "quilm create context failed"),
            ("quilm_rt_create_stream", "quilm create stream failed"),
            ("quilm_rt_get_run_mode", "quilm get run mode failed")]
    for function, error in rows:
        # Without a device there is nothing to reset, without a runtime nothing to finalise.
        after = {"quilm_init": ("reset device failed", "finalize quilm failed"),
                 "quilm_rt_set_device": ("reset device failed",)}.get(function, ())
        explained = ("quilm_rt_reset_device: no device is open",) \
            if function == "quilm_rt_set_device" else ()
        yield Call(function, (error, *NOT_INITIALISED, *after), explained, group=0)


def load(run):
    failed = ("load model from file failed, model file is $D/m.onnx",
              "execute LoadModelFromFileWithMem failed", *PROCESS)
    yield Call("quilm_rt_malloc",
               (f"malloc device buffer failed. size is {run.model_size}", *failed), group=0)
    yield Call("quilm_mdl_load_from_mem", failed, group=0)


def describe(run):
    failed = ("execute CreateDesc failed", *PROCESS)
    yield Call("quilm_mdl_create_desc", ("create model description failed", *failed), group=0)
    yield Call("quilm_mdl_get_desc", ("get model description failed", *failed), group=0)
    for kind, count in (("input", len(run.inputs) + 2), ("output", len(run.outputs))):
        yield Call(f"quilm_mdl_get_num_{kind}s")
        for _ in range(count):
            yield Call(f"quilm_mdl_get_{kind}_dims", (f"get {kind} dims failed",))
            for question in ("data_type", "size_by_index", "default_stride", "format"):
                yield Call(f"quilm_mdl_get_{kind}_{question}")
    for kind in ("input", "output"):
        yield Call(f"quilm_mdl_get_num_{kind}s")
    for kind, count in (("input", len(run.inputs) + 2), ("output", len(run.outputs))):
        yield from [Call(f"quilm_mdl_get_{kind}_size_by_index")] * count


def not_executed(run, explanation, group):
    return {"errors": ("execute model failed, modelId is 1", "execute inference failed", *PROCESS),
            "explained": (f"{explanation}",) * run.executions, "group": group}


def create_output(run):
    failed = ("execute CreateOutput failed", *PROCESS)
    yield Call("quilm_mdl_create_dataset", ("can't create dataset, create output failed", *failed),
               group=0)
    yield Call("quilm_mdl_get_num_outputs", **not_executed(
        run, f"the output dataset has 0 entries, the model {len(run.outputs)}", 0))
    for size in run.outputs.values():
        for function, error in [
                ("quilm_mdl_get_output_default_stride", "Error, output default stride is 0."),
                ("quilm_mdl_get_output_size_by_index", "Error, output size is 0."),
                ("quilm_rt_malloc", f"can't malloc buffer, size is {size}, create output failed"),
                ("quilm_create_data_buffer", "can't create data buffer, create output failed"),
                ("quilm_mdl_add_dataset_buffer", "can't add data buffer, create output failed")]:
            yield Call(function, (error, *failed), group=0)


def layout_of_input(callers, group):
    """The questions that every buffer of an input begins with."""
    for question in ("dims", "default_stride", "size_by_index"):
        yield Call(f"quilm_mdl_get_input_{question}",
                   (f"quilm_mdl_get_input_{question} error!", *callers), group=group)


def append_input(callers, group):
    yield Call("quilm_create_data_buffer",
               ("can't create data buffer, create input failed", *callers), group=group)
    yield Call("quilm_mdl_add_dataset_buffer",
               ("add input dataset buffer failed", *callers), group=group)


def stage(size, group):
    failed = ("CreateInputBuf failed", *PROCESS)
    not_staged = ("get pic device buffer failed", *failed)
    no_size = "GetInputDataSize == 0 error"
    yield from layout_of_input(("GetStrideParam error", *failed), group)
    yield Call("quilm_mdl_get_input_data_type", (no_size, *failed), group=group)
    yield Call("quilm_data_type_size", (no_size, *failed), group=group)
    yield Call("quilm_mdl_get_input_size_by_index",
               ("malloc device buffer failed. size is 0", *not_staged),
               ("quilm_rt_malloc: 0 bytes cannot be allocated",), group)
    # Without a stride no row has a place to go to.
    yield Call("quilm_mdl_get_input_default_stride", differs=f"{group}/")
    yield Call("quilm_mdl_get_input_data_type", (no_size, *not_staged), group=group)
    yield Call("quilm_data_type_size", (no_size, *not_staged), group=group)
    yield Call("quilm_rt_malloc", (f"malloc device buffer failed. size is {size}", *not_staged),
               group=group)
    yield Call("quilm_ext_get_mdl_net_type",
               (f"quilm_ext_get_mdl_net_type fail! ret = {STATUS_FAULT}", *not_staged), group=group)
    yield from append_input(("execute CreateInput failed", *failed), group)


def set_rpn(run, group):
    failed = ("Set rpn data failed", *PROCESS)
    no_dims = ("quilm_mdl_get_input_dims rpn_data error!", *failed)
    yield Call("quilm_mdl_get_num_inputs", no_dims, (
        f"quilm_mdl_get_input_dims: index {2**64 - 3}, but there are {len(run.inputs) + 2}",), group)
    yield Call("quilm_mdl_get_input_dims", no_dims, group=group)
    failed = ("SetDetParas error", *failed)
    yield Call("quilm_mdl_get_input_size_by_index", ("malloc device buffer failed", *failed),
               ("quilm_rt_malloc: 0 bytes cannot be allocated",), group)
    yield Call("quilm_rt_malloc", ("malloc device buffer failed", *failed), group=group)
    name, size = list(run.inputs.items())[-1]
    yield Call("quilm_mdl_get_input_default_stride", **not_executed(
        run, f'input {len(run.inputs) - 1} "{name}": its buffer has stride 0, the model {size}',
        group))
    yield from append_input(failed, group)


def add_task_and_work_buffer(run, group):
    failed = ("CreateTaskBufAndWorkBuf failed", *PROCESS)
    inputs = len(run.inputs)
    yield Call("quilm_mdl_get_num_inputs", ("input dataset Num is error.", *failed), group=group)
    yield Call("quilm_mdl_get_dataset_num_buffers", ("input dataset Num is 0.", *failed),
               group=group)
    failed = ("execute Create taskBuffer and workBuffer failed", *failed)
    for present, size in ((inputs, 1024), (inputs + 1, 4096)):
        yield Call("quilm_mdl_get_num_inputs", **not_executed(
            run, f"the input dataset has {present} entries, the model {inputs + 2}", group))
        yield from layout_of_input(("Error, GetInputStrideParam failed", *failed), group)
        yield Call("quilm_rt_malloc", (f"malloc device buffer failed. size is {size}", *failed),
                   group=group)
        yield from append_input(("execute CreateInput failed", *failed), group)
    yield Call("quilm_mdl_get_num_inputs")


def execute(run, group):
    failed = ("execute inference failed", *PROCESS)
    for function, said in (("quilm_ext_get_mdl_net_type", "quilm_ext_get_mdl_net_type fail!"),
                           ("quilm_mdl_set_total_t", "quilm_mdl_set_total_t failed,")):
        yield Call(function, (f"{said} ret = {STATUS_FAULT}", "Set nlpTotalt failed", *failed),
                   group=group)
    yield Call("quilm_rt_set_op_wait_timeout")
    yield from [Call("quilm_mdl_execute")] * (run.executions - 1)  # the last one decides
    yield Call("quilm_mdl_execute", ("execute model failed, modelId is 1", *failed), group=group)


def dump(run, group):
    yield Call("quilm_mdl_get_dataset_num_buffers", without=f"{group}/")
    for i, (name, size) in enumerate(run.outputs.items()):
        yield Call("quilm_mdl_get_output_name_by_index",
                   renamed=(f"{group}/{name}.", f"{group}/output."))
        yield Call("quilm_mdl_get_output_data_type")  # unknown types are taken as floats
        for suffix in ("float", "bin"):
            for function, *errors in [
                    ("quilm_mdl_get_dataset_buffer", f"output[{i}] dataBuffer nullptr invalid"),
                    ("quilm_get_data_buffer_addr", f"output[{i}] data or size({size}) invalid"),
                    ("quilm_get_data_buffer_size", f"output[{i}] data or size(0) invalid"),
                    *[(f"quilm_mdl_get_output_{question}",
                       f"quilm_mdl_get_output_{question} error!",
                       "Error, GetOutputStrideParam failed")
                      for question in ("dims", "default_stride", "size_by_index")],
                    ("quilm_mdl_get_output_data_type", "Error, dataSize == 0 invalid"),
                    ("quilm_data_type_size", "Error, dataSize == 0 invalid")]:
                yield Call(function, (*errors, "GetOutputWithOutStride fail"),
                           without=f"{group}/{name}.0.S.{suffix}")


def release_dataset(entries):
    for i in range(entries):
        rest = entries - i
        yield Call("quilm_mdl_get_dataset_num_buffers",
                   explained=(left(rest, BUFFER), left(rest, MEMORY)))
        yield Call("quilm_mdl_get_dataset_buffer", explained=(left(1, BUFFER), left(1, MEMORY)))
        yield Call("quilm_get_data_buffer_addr", explained=(left(1, MEMORY),))
        yield Call("quilm_rt_free", explained=(left(1, MEMORY),))
        yield Call("quilm_destroy_data_buffer", explained=(left(1, BUFFER),))
    yield Call("quilm_mdl_get_dataset_num_buffers")
    yield Call("quilm_mdl_destroy_dataset", explained=(left(1, "dataset"),))


def unload_and_tear_down(run):
    yield Call("quilm_mdl_unload", ("unload model failed, modelId is 1",), (left(1, "model"),))
    yield Call("quilm_mdl_destroy_desc", explained=(left(1, "model description"),))
    yield Call("quilm_rt_free", explained=(left(1, MEMORY),))
    yield from release_dataset(len(run.outputs))
    yield Call("quilm_rt_destroy_stream", ("destroy stream failed",), (left(1, "stream"),))
    yield Call("quilm_rt_destroy_context", ("destroy context failed",), (left(1, "context"),))
    yield Call("quilm_rt_reset_device", ("reset device failed",))
    yield Call("quilm_finalize", ("finalize quilm failed",))


def calls(run):
    yield from bring_up()
    yield from load(run)
    yield from describe(run)
    yield from create_output(run)
    yield Call("quilm_mdl_get_num_inputs", group=0)  # no inputs, so nothing to execute
    staged = list(run.inputs.values())[:-1]
    for group in range(run.groups):
        yield Call("quilm_mdl_create_dataset", ("can't create dataset, create input failed",
                                                "execute InitInput failed", *PROCESS), group=group)
        for size in staged:
            yield from stage(size, group)
        yield Call("quilm_mdl_set_dynamic_batch_size",
                   (f"quilm_mdl_set_dynamic_batch_size fail! ret = {STATUS_FAULT}",
                    "Set batch size failed", *PROCESS), group=group)
        yield from set_rpn(run, group)
        yield from add_task_and_work_buffer(run, group)
        yield from execute(run, group)
        yield from dump(run, group)
        yield from release_dataset(len(run.inputs) + 2)
    yield from unload_and_tear_down(run)

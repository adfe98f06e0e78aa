"""Every file that passes between programs: its dataclass, its reader and its writer together.

run_log          RunLog, Tensor; read_log(path), parse_log(text): what quilmrun printed
output_folder    OutputFolder; read_output_folder(path, log, record, newest): which output files in
                 a directory are those of one run of the tool
run_outputs      RunOutputs; read_run_outputs(path, Sources(log, inputs, types, newest)): the same
                 with types, shapes and prepared inputs; what a program usually wants.
                 `.runs`, `.keys()`, `.values_of(run)`, `.tensor(key)`, `.notes`
values           Values (path, offset, type, count) and Reader, which reads them chunk by chunk;
                 read_array_file(path): the header of a .npy
element_types    ELEMENT_TYPES, the one table: code, name, NumPy's type, how a .bin stores it
prepared_inputs  Manifest; read_manifest(path): inputs.json
record           Record; read_record(path): the figures of record.json, whose parts are in
                 record_figures; record_events: read_events(path), the calls one by one
comparison       Comparison; read_comparison(path): comparison.json
memory_report    MemoryReport; read_memory_report(path): memory_data.csv

Every reader raises Unreadable, with one line for the user, for a file that is damaged, of a later
version, or no regular file. A new JSON file is a dataclass, a common.json_files.Format with its
version, read_json(path, FORM, Kind) to read and write_json(path, headed(FORM, value), out) to
write.
"""

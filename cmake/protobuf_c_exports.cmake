# The runtime library decodes models with protobuf-c but does not carry it: it resolves six symbols
# from the executable that loads it. The executable therefore contains protobuf-c and exports these
# six. It calls none of them itself, so each has to be asked for twice: -u makes the linker take it
# out of the archive, the dynamic list puts it into the dynamic symbol table. Left to itself, the
# linker would export just those that the libquilm.so at hand happens to use, and with them whatever
# else both contain, such as the C++ library's functions; the version script keeps all but the six
# inside. Linkers of older board tool-chains know these options too.

set(protobuf_c_symbols
  protobuf_c_message_pack
  protobuf_c_message_pack_to_buffer
  protobuf_c_message_get_packed_size
  protobuf_c_message_unpack
  protobuf_c_message_free_unpacked
  protobuf_c_empty_string)

find_library(PROTOBUF_C_ARCHIVE NAMES libprotobuf-c.a REQUIRED)
add_library(protobuf_c_exports INTERFACE)
target_link_libraries(protobuf_c_exports INTERFACE ${PROTOBUF_C_ARCHIVE})
foreach(symbol IN LISTS protobuf_c_symbols)
  target_link_options(protobuf_c_exports INTERFACE "-Wl,-u,${symbol}")
endforeach()

list(JOIN protobuf_c_symbols "; " exported)
set(dynamic_list ${PROJECT_BINARY_DIR}/protobuf_c_exports.list)
file(CONFIGURE OUTPUT ${dynamic_list} CONTENT "{ @exported@; };\n" @ONLY)
target_link_options(protobuf_c_exports INTERFACE -Wl,--dynamic-list=${dynamic_list})

# A sanitizer's functions have to stay visible to libquilm.so, which is checked too.
if(NOT QUILMRUN_SANITIZE)
  set(version_script ${PROJECT_BINARY_DIR}/protobuf_c_exports.map)
  file(CONFIGURE OUTPUT ${version_script} CONTENT "{ global: @exported@; local: *; };\n" @ONLY)
  target_link_options(protobuf_c_exports INTERFACE -Wl,--version-script=${version_script})
endif()

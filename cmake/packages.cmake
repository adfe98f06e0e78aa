# What is installed beside the executable, and the packages made of it. For a board one package, as
# an archive too; for a PC the tool with companions, examples and documentation, and apart from it
# the host runtime with its engine, which gives way to another libquilm.so. The version is the
# project's.

# install_compressed(FILE DIRECTORY NAME COMPONENT): FILE as NAME.gz.
function(install_compressed file directory name component)
  set(compressed ${PROJECT_BINARY_DIR}/compressed/${component}/${name}.gz)
  file(MAKE_DIRECTORY ${PROJECT_BINARY_DIR}/compressed/${component})
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${file})
  execute_process(COMMAND gzip -9nc ${file} OUTPUT_FILE ${compressed} COMMAND_ERROR_IS_FATAL ANY)
  install(FILES ${compressed} DESTINATION ${directory} COMPONENT ${component})
endfunction()

# install_manual(NAME): the page docs/NAME.1.in, with the project's version.
function(install_manual name)
  configure_file(${PROJECT_SOURCE_DIR}/docs/${name}.1.in ${PROJECT_BINARY_DIR}/${name}.1 @ONLY)
  install_compressed(${PROJECT_BINARY_DIR}/${name}.1 share/man/man1 ${name}.1 quilmrun)
endfunction()

# install_legal(PACKAGE COMPONENT COPYRIGHT): what Debian asks of each package's documentation.
function(install_legal package component copyright)
  install(FILES ${PROJECT_SOURCE_DIR}/docs/debian/${copyright} DESTINATION share/doc/${package}
          RENAME copyright COMPONENT ${component})
  install_compressed(${PROJECT_SOURCE_DIR}/docs/debian/changelog share/doc/${package} changelog
                     ${component})
endfunction()

# install_documentation(FILE...): so that each finds what it links to.
function(install_documentation)
  foreach(file ${ARGN})
    cmake_path(GET file PARENT_PATH directory)
    install(FILES ${file} DESTINATION share/doc/quilmrun/${directory})
  endforeach()
endfunction()

install_manual(quilmrun)
install(FILES ${PROJECT_SOURCE_DIR}/companions/completion/quilmrun
        DESTINATION share/bash-completion/completions)

set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "run a compiled model on an accelerator board")
set(CPACK_PACKAGE_CONTACT
    "quilmrun maintainers <maintainers@users.noreply.c-seed-47daae52.example>")
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_SOURCE_DIR}/build/packages)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_COMPRESSION_TYPE gzip)  # xz takes a minute for the engine
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
if(CMAKE_SYSTEM_PROCESSOR MATCHES "^(aarch64|arm64)$")
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE arm64)
endif()

if(QUILMRUN_BOARD)
  install(FILES docs/board.txt DESTINATION share/doc/quilmrun RENAME README)
  install_legal(quilmrun quilmrun copyright.board)
  set(CPACK_GENERATOR DEB TGZ)
  set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "bash-completion")
  set(CPACK_PACKAGE_FILE_NAME quilmrun-${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_ARCHITECTURE})
  set(CPACK_PACKAGE_DESCRIPTION "Loads the board's own libquilm.so, which is not part of it.")
elseif(NOT QUILMRUN_RUNTIME_LIBRARY)
  install_documentation(README.md CHANGELOG.md CONTRIBUTING.md LICENSE docs/architecture.md docs/board.md
                        docs/boards.md docs/building.md docs/companions.md docs/failures.md
                        docs/host-runtime.md docs/report.png docs/speed.md)
  # With permissions of its own, whatever umask the checkout was made with.
  install(DIRECTORY examples DESTINATION share/quilmrun
          PATTERN __pycache__ EXCLUDE PATTERN memory_data.csv EXCLUDE
          REGEX "/(show|train|make)\\.py$"
          PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ
                      WORLD_EXECUTE)
  # Documentation and examples link to each other as in the source tree.
  foreach(link "../../quilmrun/examples;doc/quilmrun/examples" "../doc/quilmrun/docs;quilmrun/docs")
    list(GET link 0 target)
    list(GET link 1 name)
    install(CODE "file(CREATE_LINK ${target}
      \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/share/${name}\" SYMBOLIC)")
  endforeach()
  install(PROGRAMS scripts/run-example DESTINATION share/quilmrun/scripts)
  install_legal(quilmrun quilmrun copyright.tool)
  install_legal(quilmrun-host-runtime runtime copyright.host-runtime)

  set(CPACK_GENERATOR DEB)
  set(CPACK_DEB_COMPONENT_INSTALL ON)
  set(CPACK_COMPONENTS_ALL quilmrun runtime)
  # The tool's libquilm.so is in no package, or in the other one.
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR})
  set(CPACK_COMPONENT_QUILMRUN_DESCRIPTION
      "Loads libquilm.so: that of a board, or of quilmrun-host-runtime, which runs
ONNX models. With companions that prepare inputs, record, compare and report,
and with examples.")
  set(CPACK_DEBIAN_QUILMRUN_PACKAGE_NAME quilmrun)
  set(CPACK_DEBIAN_QUILMRUN_PACKAGE_DEPENDS "python3:any")
  # Each companion names what it lacks, the tool needs none of them.
  set(CPACK_DEBIAN_QUILMRUN_PACKAGE_RECOMMENDS "quilmrun-host-runtime, man-db, bash-completion, \
python3-numpy, python3-pil, python3-jinja2, python3-tqdm, python3-onnx, parallel, openssh-client")
  set(CPACK_COMPONENT_RUNTIME_DESCRIPTION
      "The host runtime: a libquilm.so for PCs that runs ONNX models with ONNX
Runtime, which comes with it.")
  set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME quilmrun-host-runtime)
  set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
  set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/docs/debian/triggers)
endif()

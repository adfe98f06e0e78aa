# What is installed beside the executable, and the packages made of it: for a board the executable
# alone, for a PC with the host runtime and the examples. The version is the project's.

configure_file(${PROJECT_SOURCE_DIR}/docs/quilmrun.1.in ${PROJECT_BINARY_DIR}/quilmrun.1 @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/quilmrun.1 DESTINATION share/man/man1)

set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "run a compiled model on an accelerator board")
set(CPACK_PACKAGE_CONTACT "quilmrun maintainers <root@localhost>")
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_SOURCE_DIR}/build/packages)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
if(CMAKE_SYSTEM_PROCESSOR MATCHES "^(aarch64|arm64)$")
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE arm64)
endif()

if(QUILMRUN_BOARD)
  install(FILES docs/board.txt DESTINATION share/doc/quilmrun RENAME README)
  set(CPACK_GENERATOR DEB TGZ)
  set(CPACK_PACKAGE_FILE_NAME quilmrun-${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_ARCHITECTURE})
  set(CPACK_PACKAGE_DESCRIPTION "Without libquilm.so, which is the board's own.")
elseif(NOT QUILMRUN_RUNTIME_LIBRARY)
  install(FILES README.md DESTINATION share/doc/quilmrun)
  install(FILES docs/board.md DESTINATION share/doc/quilmrun/docs)
  # With permissions of its own, whatever umask the checkout was made with.
  install(DIRECTORY examples DESTINATION share/quilmrun
          PATTERN __pycache__ EXCLUDE PATTERN memory_data.csv EXCLUDE
          PATTERN "*.py" PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE
                                     WORLD_READ WORLD_EXECUTE)
  install(PROGRAMS scripts/run-example scripts/compare-outputs DESTINATION share/quilmrun/scripts)
  set(CPACK_GENERATOR DEB)
  set(CPACK_PACKAGE_DESCRIPTION
      "With a host runtime for ONNX models in place of the board's libquilm.so, and examples.")
  set(CPACK_DEBIAN_PACKAGE_RECOMMENDS python3)
endif()
include(CPack)

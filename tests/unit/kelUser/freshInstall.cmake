# Installs the library under SCRATCH, then builds EXAMPLE as somebody does who has nothing else, and runs it.
file(REMOVE_RECURSE ${SCRATCH})
execute_process(COMMAND ${CMAKE_COMMAND} --install ${BUILD} --component kel-user --prefix ${SCRATCH}
  OUTPUT_QUIET COMMAND_ERROR_IS_FATAL ANY)

file(GLOB_RECURSE packages ${SCRATCH}/kel-user.pc)
cmake_path(GET packages PARENT_PATH folder)
set(ENV{PKG_CONFIG_PATH} ${folder})
execute_process(COMMAND ${PKG_CONFIG} --cflags --libs kel-user
  OUTPUT_VARIABLE flags OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
separate_arguments(flags UNIX_COMMAND "${flags}")
execute_process(COMMAND ${C_COMPILER} -std=c11 -pedantic-errors -o ${SCRATCH}/example ${EXAMPLE} ${flags}
  COMMAND_ERROR_IS_FATAL ANY)

execute_process(COMMAND ${PKG_CONFIG} --variable=libdir kel-user
  OUTPUT_VARIABLE folder OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
set(ENV{LD_LIBRARY_PATH} ${folder})
set(ENV{KORVEL_RUN_DIR} /nonexistent)
execute_process(COMMAND ${SCRATCH}/example kel.user.backup.failed web01)

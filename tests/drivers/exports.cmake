# Fails unless LIBRARY exports PlcDrvCmd, PlcDrvInfo perhaps, and nothing else.
execute_process(COMMAND ${NM} -D --defined-only --format=posix ${LIBRARY} OUTPUT_VARIABLE symbols COMMAND_ERROR_IS_FATAL ANY)
if(NOT symbols MATCHES "^PlcDrvCmd T [^\n]*\n(PlcDrvInfo T [^\n]*\n)?$")
  message(FATAL_ERROR "${LIBRARY} exports:\n${symbols}")
endif()

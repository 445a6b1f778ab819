# cmake -D PROGRAM=FILE -D SCDOC=FILE -D DIR=DIRECTORY -P QxManualPages.cmake
# Makes the manual page of each command of the program in DIRECTORY: qxctl-report-cat.1, ... The commands are those of
# `PROGRAM _table`.
execute_process(COMMAND ${PROGRAM} _table OUTPUT_VARIABLE table COMMAND_ERROR_IS_FATAL ANY)
string(JSON count LENGTH "${table}")
math(EXPR last "${count} - 1")
get_filename_component(name ${PROGRAM} NAME)
file(GLOB old ${DIR}/${name}-*.1)
if(old)
  file(REMOVE ${old})  # of commands that no longer exist
endif()
foreach(row RANGE 1 ${last})  # row 0 is the program itself
  string(JSON command GET "${table}" ${row} command)
  string(REPLACE " " "-" page ${command})
  separate_arguments(words UNIX_COMMAND ${command})
  list(POP_FRONT words)
  execute_process(COMMAND ${PROGRAM} _man ${words} COMMAND ${SCDOC} OUTPUT_FILE ${DIR}/${page}.1 COMMAND_ERROR_IS_FATAL ANY)
endforeach()

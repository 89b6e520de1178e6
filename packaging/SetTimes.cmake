# SPDX-License-Identifier: MIT
# Gives all files of the packages one time, that of the release: the same packages come of the same
# sources, whenever and wherever they are built.
if(DEFINED ENV{SOURCE_DATE_EPOCH})
  execute_process(COMMAND find ${CPACK_TEMPORARY_DIRECTORY} -exec touch --no-dereference
                          --date=@$ENV{SOURCE_DATE_EPOCH} {} + COMMAND_ERROR_IS_FATAL ANY)
endif()

# cmake -DWAYFOLIO=<program> -DTEMPLATE=<wayfolio.1.in> -DDATE=<yyyy-mm-dd>
#       -DOUTPUT=<wayfolio.1> -P WriteManualPage.cmake
# Writes the page with "wayfolio __manpage" and a copy compressed without
# name or time stamp (gzip -9n), as Debian packages carry manual pages.
# The program runs with no settings file, so a developer's settings never
# change the page.
set(ENV{WAYFOLIO_SETTINGS} "${OUTPUT}.no-settings.toml")
execute_process(COMMAND ${WAYFOLIO} __manpage ${TEMPLATE} --date ${DATE}
                OUTPUT_FILE ${OUTPUT} RESULT_VARIABLE status ERROR_VARIABLE errors)
if(NOT status EQUAL 0)
  message(FATAL_ERROR "wayfolio __manpage failed (${status}): ${errors}")
endif()
execute_process(COMMAND gzip -9nc ${OUTPUT} OUTPUT_FILE ${OUTPUT}.gz RESULT_VARIABLE status)
if(NOT status EQUAL 0)
  message(FATAL_ERROR "gzip failed (${status}) on ${OUTPUT}")
endif()

# Writes the header with the commit that vxrun is built from, whenever that changes:
#   cmake -DSOURCE=DIR -DHEADER=FILE -P version.cmake
execute_process(COMMAND git -C ${SOURCE} describe --always --abbrev=12 --dirty --exclude=*
                OUTPUT_VARIABLE commit OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
file(CONFIGURE OUTPUT ${HEADER} CONTENT "#define VXRUN_COMMIT \"${commit}\"\n" @ONLY)

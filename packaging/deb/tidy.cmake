# What Debian wants of files in packages, done where CPack has laid them out.
set(root "${CPACK_TEMPORARY_DIRECTORY}")

# CPack strips programs only. In the libraries, too, debug information and what only our own
# link-time optimisation reads do not ship.
file(GLOB_RECURSE archives "${root}/*.a")
if(archives)
  execute_process(COMMAND "${CPACK_KOVA_STRIP}" --strip-debug --enable-deterministic-archives
      --wildcard --remove-section=.comment --remove-section=.gnu.lto_* --remove-section=.gnu.debuglto_*
      --strip-symbol=__gnu_lto_slim ${archives}
    COMMAND_ERROR_IS_FATAL ANY)
endif()

file(GLOB_RECURSE texts "${root}/*")
list(FILTER texts INCLUDE REGEX "/man/man[1-9]/[^/]*[1-9]$|/changelog.Debian$")
if(texts)
  execute_process(COMMAND gzip -9nf ${texts} COMMAND_ERROR_IS_FATAL ANY)
endif()

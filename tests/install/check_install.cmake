# Installs the build tree twice, into DESTDIR with the configured prefix and with
# `--prefix`, and checks the files, that nothing lands outside the prefix, and that
# the unit's ExecStart is the ltrd that was installed.
# In: BUILD_DIR, SCRATCH, PREFIX (the configured CMAKE_INSTALL_PREFIX), MAN_PAGES (the
# man pages the tree builds, relative to the prefix, separated by commas), WIRESHARK_LUA
# (the installed dissectors, relative to the prefix), CRYPTO_PLUGIN (ltrd-crypto.so,
# relative to the prefix).

set(expected
    sbin/ltrd
    bin/ltrctl
    bin/ltr-server
    lib/systemd/system/ltrd.service
    share/doc/ltrd/README.md
    share/doc/ltrd/docs/configuration.md
    share/doc/ltrd/docs/porting.md
    share/doc/ltrd/docs/protocol.md
    share/doc/ltrd/examples/platform.toml
    share/bash-completion/completions/ltrctl)
if(WIRESHARK_LUA AND NOT IS_ABSOLUTE "${WIRESHARK_LUA}")
  list(APPEND expected ${WIRESHARK_LUA})
endif()
if(CRYPTO_PLUGIN)
  list(APPEND expected ${CRYPTO_PLUGIN})
endif()
if(MAN_PAGES)
  string(REPLACE "," ";" man_pages "${MAN_PAGES}")
  list(APPEND expected ${man_pages})
endif()
set(executables sbin/ltrd bin/ltrctl bin/ltr-server)

set(failures "")
find_program(ANALYZE systemd-analyze)
macro(fail msg)
  string(APPEND failures "  ${msg}\n")
endmacro()

# Runs `cmake --install`; extra arguments go before it (cmake -E env ...) or after.
function(run_install label env_args extra_args)
  execute_process(COMMAND ${CMAKE_COMMAND} -E env ${env_args}
                          ${CMAKE_COMMAND} --install ${BUILD_DIR} ${extra_args}
                  RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "${label}: cmake --install failed (${rc}):\n${out}${err}")
  endif()
endfunction()

# root: the directory the files appear under; prefix: the path the installed files
# know themselves by (what ExecStart must name).
macro(check_tree label root prefix)
  foreach(f ${expected})
    if(NOT EXISTS "${root}/${f}")
      fail("${label}: ${f} is missing")
    endif()
  endforeach()
  foreach(f ${executables})
    execute_process(COMMAND test -x "${root}/${f}" RESULT_VARIABLE rc)
    if(NOT rc EQUAL 0)
      fail("${label}: ${f} is not executable")
    endif()
  endforeach()
  if(EXISTS "${root}/lib/systemd/system/ltrd.service")
    # The installed ltrd, the configuration's path, and a daemon that tells systemd when it serves.
    foreach(want "ExecStart=${prefix}/sbin/ltrd" "Environment=QZ_PLATFORM_CONFIG=/etc/qz/platform.toml"
                 "Type=notify")
      string(REGEX REPLACE "=.*" "=" key "${want}")
      file(STRINGS "${root}/lib/systemd/system/ltrd.service" got REGEX "^${key}")
      if(NOT got STREQUAL want)
        fail("${label}: unit says \"${got}\", want \"${want}\"")
      endif()
    endforeach()
    # The unit's sandbox: systemd's own rating of it, 3.0 at most ("OK").
    if(ANALYZE)
      execute_process(COMMAND ${ANALYZE} security --offline=true --threshold=30
                              "${root}/lib/systemd/system/ltrd.service"
                      RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
      if(NOT rc EQUAL 0)
        string(REGEX MATCH "Overall exposure level[^\n]*" level "${out}")
        fail("${label}: unit exposure above 3.0: ${level}${err}")
      endif()
    endif()
  endif()
endmacro()

file(REMOVE_RECURSE "${SCRATCH}")

# 1. DESTDIR staging, as a package build does: every file under DESTDIR/PREFIX, none
#    in DESTDIR/etc, and the unit names PREFIX (not the staging directory).
set(dest "${SCRATCH}/destdir")
run_install("DESTDIR" "DESTDIR=${dest}" "")
check_tree("DESTDIR" "${dest}${PREFIX}" "${PREFIX}")
file(GLOB_RECURSE all RELATIVE "${dest}" "${dest}/*")
foreach(f ${all})
  string(FIND "/${f}" "${PREFIX}/" at)
  if(NOT at EQUAL 0)
    fail("DESTDIR: ${f} is outside the prefix ${PREFIX}")
  endif()
endforeach()

# 2. `cmake --install --prefix DIR`: the unit follows the prefix given at install time.
set(pfx "${SCRATCH}/opt/ltrd")
run_install("--prefix" "--unset=DESTDIR" "--prefix;${pfx}")
check_tree("--prefix" "${pfx}" "${pfx}")

if(failures)
  message(FATAL_ERROR "install layout:\n${failures}")
endif()
file(REMOVE_RECURSE "${SCRATCH}")
message(STATUS "install layout: ok")

# Run by `cmake --install`: writes the systemd unit with this installation's paths.
# In: LTR_UNIT_IN, LTR_UNIT_OUT, LTR_REL_SBINDIR, LTR_REL_DOCDIR (as GNUInstallDirs
# gives them: relative to the prefix, or absolute).
foreach(v SBINDIR DOCDIR)
  if(IS_ABSOLUTE "${LTR_REL_${v}}")
    set(LTR_${v} "${LTR_REL_${v}}")
  else()
    set(LTR_${v} "${CMAKE_INSTALL_PREFIX}/${LTR_REL_${v}}")
  endif()
endforeach()
configure_file("${LTR_UNIT_IN}" "${LTR_UNIT_OUT}" @ONLY)

# The manual pages: every dist/man/NAME.SECTION.scd becomes NAME.SECTION
# (roff, for `man -l`) and NAME.SECTION.gz (installed to share/man/manSECTION,
# compressed as Debian wants: gzip -9n, no name or time stamp inside).

find_program(IPCD_SCDOC scdoc)
mark_as_advanced(IPCD_SCDOC)
if(NOT IPCD_SCDOC)
  message(FATAL_ERROR "scdoc not found: it turns dist/man/*.scd into manual pages "
                      "(scripts/install-deps installs it)")
endif()

file(GLOB _ipcd_man_sources CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/dist/man/*.scd)
set(_ipcd_man_dir ${PROJECT_BINARY_DIR}/man)
set(_ipcd_man_outputs "")
foreach(_source ${_ipcd_man_sources})
  get_filename_component(_page ${_source} NAME_WLE)  # ipcd.conf.5
  string(REGEX MATCH "[1-9]$" _section ${_page})
  if(NOT _section)
    message(FATAL_ERROR "${_source}: the name must end in .SECTION.scd")
  endif()
  set(_roff ${_ipcd_man_dir}/${_page})
  add_custom_command(
    OUTPUT ${_roff} ${_roff}.gz
    COMMAND ${CMAKE_COMMAND} -E make_directory ${_ipcd_man_dir}
    COMMAND sh -c "\"$1\" <\"$2\" >\"$3\" && gzip -9n -c \"$3\" >\"$3.gz\"" sh
            ${IPCD_SCDOC} ${_source} ${_roff}
    DEPENDS ${_source}
    COMMENT "Manual page ${_page}"
    VERBATIM)
  list(APPEND _ipcd_man_outputs ${_roff} ${_roff}.gz)
  install(FILES ${_roff}.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man${_section})
endforeach()
add_custom_target(man ALL DEPENDS ${_ipcd_man_outputs})

# rvx_plugin(NAME SOURCE...): a build of the plug-in, its code and the sources that choose its machine. Only what the
# caller's NAME.map lists leaves the library.
function(rvx_plugin name)
  set(map ${CMAKE_CURRENT_SOURCE_DIR}/${name}.map)
  add_library(${name} MODULE ${ARGN})
  target_link_libraries(${name} PRIVATE $<LINK_LIBRARY:WHOLE_ARCHIVE,rvx_core> rvx_options)
  # A thread that could not be ended outlives its instance and even a dlclose: its code must stay mapped.
  target_link_options(${name} PRIVATE -Wl,--version-script=${map} -Wl,-z,nodelete)
  if(NOT RVX_SANITIZE)
    target_link_options(${name} PRIVATE -Wl,--no-undefined)
  endif()
  set_target_properties(${name} PROPERTIES PREFIX lib LINK_DEPENDS ${map} INSTALL_RPATH "$ORIGIN")
  install(TARGETS ${name} LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}/piRVX)
endfunction()

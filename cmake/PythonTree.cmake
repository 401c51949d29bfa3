# mirror_python_files(from to): the Python and web files below `from`, copied below `to` as part of
# the build and whenever they change.
function(mirror_python_files from to)
  file(GLOB_RECURSE sources CONFIGURE_DEPENDS RELATIVE "${from}"
       "${from}/*.py" "${from}/*.pyi" "${from}/*.css" "${from}/*.html" "${from}/*.js")
  set(copies)
  foreach(source IN LISTS sources)
    add_custom_command(
      OUTPUT "${to}/${source}"
      COMMAND "${CMAKE_COMMAND}" -E copy "${from}/${source}" "${to}/${source}"
      DEPENDS "${from}/${source}"
      VERBATIM)
    list(APPEND copies "${to}/${source}")
  endforeach()
  get_filename_component(name "${to}" NAME)
  add_custom_target(python_files_${name} ALL DEPENDS ${copies})
endfunction()

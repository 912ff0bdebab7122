# rvx_room(TARGET SCOPE FOLDER): what the folder holds is found as "FOLDER/..." by whom the scope says, and by nobody else.
# A folder of links to it in the build tree is the include path: with the repository's root as such, everybody would find
# everything.
function(rvx_room target scope folder)
  string(REPLACE / _ room ${folder})
  set(root ${PROJECT_BINARY_DIR}/rooms/${room})
  cmake_path(GET folder PARENT_PATH parent)
  file(MAKE_DIRECTORY ${root}/${parent})
  # Relative, so that a copy of both trees is whole.
  file(RELATIVE_PATH place ${root}/${parent} ${PROJECT_SOURCE_DIR}/${folder})
  file(CREATE_LINK ${place} ${root}/${folder} SYMBOLIC)
  target_include_directories(${target} ${scope} ${root})
endfunction()

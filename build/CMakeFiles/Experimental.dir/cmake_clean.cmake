file(REMOVE_RECURSE
  "CMakeFiles/Experimental"
)

# Per-language clean rules from dependency scanning.
foreach(lang )
  include(CMakeFiles/Experimental.dir/cmake_clean_${lang}.cmake OPTIONAL)
endforeach()

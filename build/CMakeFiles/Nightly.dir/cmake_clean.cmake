file(REMOVE_RECURSE
  "CMakeFiles/Nightly"
)

# Per-language clean rules from dependency scanning.
foreach(lang )
  include(CMakeFiles/Nightly.dir/cmake_clean_${lang}.cmake OPTIONAL)
endforeach()

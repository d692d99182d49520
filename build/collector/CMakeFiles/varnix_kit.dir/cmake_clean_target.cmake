file(REMOVE_RECURSE
  "libvarnix_kit.a"
)

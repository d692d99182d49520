# Empty dependencies file for varnix_core.
# This may be replaced when dependencies are built.

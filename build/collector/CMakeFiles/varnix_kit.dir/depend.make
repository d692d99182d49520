# Empty dependencies file for varnix_kit.
# This may be replaced when dependencies are built.

# Empty dependencies file for varnix.
# This may be replaced when dependencies are built.

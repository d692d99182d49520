# Empty dependencies file for varnix-ipc-clean.
# This may be replaced when dependencies are built.

# Empty custom commands generated dependencies file for ExperimentalUpdate.
# This may be replaced when dependencies are built.

# Empty custom commands generated dependencies file for ExperimentalConfigure.
# This may be replaced when dependencies are built.

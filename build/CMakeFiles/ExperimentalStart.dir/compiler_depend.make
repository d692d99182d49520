# Empty custom commands generated dependencies file for ExperimentalStart.
# This may be replaced when dependencies are built.

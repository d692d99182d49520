# Empty custom commands generated dependencies file for ExperimentalMemCheck.
# This may be replaced when dependencies are built.

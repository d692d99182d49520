# Empty custom commands generated dependencies file for ExperimentalBuild.
# This may be replaced when dependencies are built.

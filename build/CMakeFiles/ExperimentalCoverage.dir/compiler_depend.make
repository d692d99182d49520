# Empty custom commands generated dependencies file for ExperimentalCoverage.
# This may be replaced when dependencies are built.

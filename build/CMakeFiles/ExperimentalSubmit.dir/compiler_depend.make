# Empty custom commands generated dependencies file for ExperimentalSubmit.
# This may be replaced when dependencies are built.

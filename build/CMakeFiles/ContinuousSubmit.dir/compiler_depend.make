# Empty custom commands generated dependencies file for ContinuousSubmit.
# This may be replaced when dependencies are built.

# Empty custom commands generated dependencies file for ContinuousMemCheck.
# This may be replaced when dependencies are built.

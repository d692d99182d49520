# Empty custom commands generated dependencies file for NightlyMemCheck.
# This may be replaced when dependencies are built.

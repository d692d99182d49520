# Empty custom commands generated dependencies file for Experimental.
# This may be replaced when dependencies are built.

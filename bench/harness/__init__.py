"""The common code of the measurements."""

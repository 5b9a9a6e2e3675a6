"""The common code of the whole-program tests."""

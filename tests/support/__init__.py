"""What the whole-program tests share."""

"""What the measurements share."""

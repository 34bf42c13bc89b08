"""What scripts/soak-inside is made of."""

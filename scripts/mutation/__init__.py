"""What scripts/mutate and scripts/mutate-all are made of."""

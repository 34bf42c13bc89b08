# One line a test program.

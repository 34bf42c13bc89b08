"""What scripts/soak-inside is made of."""

import os


def preload(libraries, names):
    """Variables of a program that takes functions from these libraries first. One with the address sanitizer wants to be
    told that it may come after them."""
    return {"LD_PRELOAD": ":".join(os.path.join(libraries, name) for name in names),
            "ASAN_OPTIONS": "verify_asan_link_order=0"}

# SPDX-License-Identifier: MIT
"""What the program prints and writes, as records."""

# SPDX-License-Identifier: MIT
"""The commands: their arguments, what they start and end, and their exit status."""

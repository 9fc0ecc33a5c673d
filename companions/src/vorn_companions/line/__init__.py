# SPDX-License-Identifier: MIT
"""What a line carries and how it feels under load: measured by a few runs of the program, judged, said and drawn."""

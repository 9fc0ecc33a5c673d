# SPDX-License-Identifier: MIT
"""What Vorn measured, as data: read, kept, checked and drawn. CONTRIBUTING.md says which file does what."""

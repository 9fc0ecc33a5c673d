# SPDX-License-Identifier: MIT
"""What is made of records: computed, said and drawn."""

# SPDX-License-Identifier: MIT
"""The file of records, which vorn-record appends to."""

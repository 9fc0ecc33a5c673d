# SPDX-License-Identifier: MIT
"""Many hosts: who they are, who meets whom when, what runs on them and what is kept of it."""

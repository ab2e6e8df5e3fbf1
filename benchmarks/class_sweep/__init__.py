# SPDX-License-Identifier: MIT
"""Measuring global minimisers on classes of test functions.

`functions` says what is minimised and when it counts as solved, `methods` by what, `runs` does
the work on many workers and keeps what is finished, `report` turns it into tables and plots.
"""

# SPDX-License-Identifier: MIT
"""Measuring minimisers on problems of other people's making (`outside_problems`).

`recorder` counts evaluations and notes when an accuracy is reached, `methods` are what is
compared, `runs` does one run, `scoring` sums up, `report` makes tables and plots.
"""

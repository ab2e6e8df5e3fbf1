# SPDX-License-Identifier: MIT
"""What the benchmarks of methods share.

`runs` does the work on many workers and keeps what is finished, `tables` writes what came of it,
`command` has the common parts of their command lines, `provenance` says which versions ran where.
"""

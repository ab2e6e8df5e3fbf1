# SPDX-License-Identifier: MIT
#
# quenloft_options: how every target of this tree is compiled. Link it PRIVATE.
#
# A search must be the same to the last bit with every compiler and at every
# level of optimisation, so a product and a sum are never fused into one rounding,
# and no flag that lets the compiler regroup a sum is ever used.

add_library(quenloft_options INTERFACE)
add_library(Quenloft::options ALIAS quenloft_options)
target_compile_features(quenloft_options INTERFACE cxx_std_17)
target_compile_options(quenloft_options INTERFACE -ffp-contract=off -Wall -Wextra)
# clang++ warns of each loop that it was invited to vectorise and left as it was: that is no
# fault, and differs from one version to the next.
target_compile_options(quenloft_options INTERFACE
                       $<$<CXX_COMPILER_ID:Clang,AppleClang>:-Wno-pass-failed>)
if(NOT TARGET OpenMP::OpenMP_CXX)
  # Loops are vectorised all the same; what is said of threads is passed over.
  target_compile_options(quenloft_options INTERFACE -fopenmp-simd)
endif()
if(QUENLOFT_WERROR)
  target_compile_options(quenloft_options INTERFACE -Werror)
endif()

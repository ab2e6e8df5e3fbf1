# SPDX-License-Identifier: MIT
#
# What is installed, in two components: `engine`, the static libraries with their
# headers and CMake package, for C++ programs; `python`, the native module and the
# package's binding, for the wheel.

include(CMakePackageConfigHelpers)

if(TARGET quenloft_solver)
  set(quenloft_package_folder "${CMAKE_INSTALL_LIBDIR}/cmake/Quenloft")

  install(TARGETS quenloft_solver quenloft_search EXPORT QuenloftTargets
          ARCHIVE DESTINATION "${CMAKE_INSTALL_LIBDIR}" COMPONENT engine
          INCLUDES DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}")
  # The headers that a caller needs; those of the implementation stay here.
  install(FILES src/solver/constants.h src/solver/create_solver.h src/solver/errors.h
                src/solver/function_interface.h src/solver/neighbour.h src/solver/solver_base.h
                src/solver/threads.h
          DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}/solver" COMPONENT engine)
  install(FILES src/search/column.h src/search/fair_mutex.h src/search/guess.h
                src/search/problem.h src/search/search.h src/search/space.h
          DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}/search" COMPONENT engine)
  install(EXPORT QuenloftTargets NAMESPACE Quenloft:: FILE QuenloftTargets.cmake
          DESTINATION "${quenloft_package_folder}" COMPONENT engine)

  configure_package_config_file(cmake/QuenloftConfig.cmake.in
      "${PROJECT_BINARY_DIR}/QuenloftConfig.cmake" INSTALL_DESTINATION "${quenloft_package_folder}")
  write_basic_package_version_file("${PROJECT_BINARY_DIR}/QuenloftConfigVersion.cmake"
      COMPATIBILITY SameMajorVersion)
  install(FILES "${PROJECT_BINARY_DIR}/QuenloftConfig.cmake"
                "${PROJECT_BINARY_DIR}/QuenloftConfigVersion.cmake"
          DESTINATION "${quenloft_package_folder}" COMPONENT engine)
endif()

if(TARGET _Quenloft)
  install(TARGETS _Quenloft LIBRARY DESTINATION . COMPONENT python)
endif()
if(TARGET _binding)
  install(TARGETS _binding LIBRARY DESTINATION Quenloft COMPONENT python)
endif()

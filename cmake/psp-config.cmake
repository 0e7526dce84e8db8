include(${CMAKE_CURRENT_LIST_DIR}/psp-targets.cmake)

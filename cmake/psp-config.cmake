include(CMakeFindDependencyMacro)
find_dependency(Threads)
include(${CMAKE_CURRENT_LIST_DIR}/psp-targets.cmake)

# The archive is made from C++ but needs nothing of it: a program in C is linked by the C driver.
get_target_property(psp_configurations psp::static IMPORTED_CONFIGURATIONS)
foreach(psp_configuration IN LISTS psp_configurations)
  set_target_properties(psp::static PROPERTIES
    IMPORTED_LINK_INTERFACE_LANGUAGES_${psp_configuration} C)
endforeach()

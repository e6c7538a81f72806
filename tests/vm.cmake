# The VM tier: test programs that need real kernel drivers (i2c-stub behind
# i2c-dev, QEMU's edu PCI device) and therefore run inside a QEMU guest booted by
# scripts/vm-test.sh. Every tests/vm/*_vmtest.cpp becomes a program in
# <build>/tests/vm/; other tests/vm/*.cpp files are support code shared by them.
# The programs are not ctest entries of their own: the single entry vm_tier runs
# all of them in one VM boot. The tarnreg command goes into the VM with them
# (/tarn/bin/tarnreg), so building the in-VM programs builds it too.

file(GLOB TARN_VM_TEST_SOURCES CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/vm/*_vmtest.cpp)
file(GLOB TARN_VM_SUPPORT_SOURCES CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/vm/*.cpp)
list(FILTER TARN_VM_SUPPORT_SOURCES EXCLUDE REGEX "_vmtest\\.cpp$")

if(TARN_VM_TEST_SOURCES)
  add_library(tarn_vm_test_support STATIC ${TARN_VM_SUPPORT_SOURCES})
  target_include_directories(tarn_vm_test_support PUBLIC ${CMAKE_CURRENT_SOURCE_DIR}/vm)
  target_link_libraries(tarn_vm_test_support PUBLIC tarn_test_support)

  set(TARN_VM_PROGRAM_ARGS)
  # Everything one VM run carries: `cmake --build --preset X --target tarn_vm_programs`.
  add_custom_target(tarn_vm_programs)
  foreach(src ${TARN_VM_TEST_SOURCES})
    get_filename_component(name ${src} NAME_WE)
    list(APPEND TARN_VM_PROGRAM_ARGS --only ${name})
    add_executable(${name} ${src})
    target_link_libraries(${name} PRIVATE tarn_vm_test_support tarn_test_support GTest::gtest_main)
    set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR}/vm)
    add_dependencies(tarn_vm_programs ${name})
    # Any in-VM program may run the command, and the VM always carries it:
    # building one of them brings the command up to date as well.
    if(TARGET tarnreg)
      add_dependencies(${name} tarnreg)
    endif()
  endforeach()
  if(TARGET tarnreg)
    # Named explicitly, so that a tarnreg that was not built fails the run
    # instead of leaving its tests without the command.
    list(APPEND TARN_VM_PROGRAM_ARGS --tool tarnreg)
  endif()

  # Exactly the programs of the current sources run (a stale binary of a removed
  # source is left out, an unbuilt one is an error). 77 means the machine cannot
  # boot the VM (no QEMU or kernel): reported as skipped.
  add_test(NAME vm_tier COMMAND ${PROJECT_SOURCE_DIR}/scripts/vm-test.sh ${TARN_VM_PROGRAM_ARGS} ${PROJECT_BINARY_DIR})
  set_tests_properties(vm_tier PROPERTIES
    SKIP_RETURN_CODE 77
    TIMEOUT 900
    LABELS vm
    # A TCG guest keeps one core busy; timing-sensitive tests should not share it.
    RUN_SERIAL TRUE)
endif()

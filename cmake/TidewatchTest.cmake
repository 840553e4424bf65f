# Every tests/<area>/Test<Subject>.cpp is one executable and one CTest entry,
# labelled by its area: e2e and render suites are told apart from unit suites so
# that they can be run or skipped as a group.
function(tidewatch_add_test source)
  get_filename_component(name ${source} NAME_WE)
  get_filename_component(dir ${source} DIRECTORY)
  get_filename_component(area ${dir} NAME)
  if(area STREQUAL "e2e" OR area STREQUAL "render")
    set(label ${area})
  else()
    set(label unit)
  endif()
  add_executable(${name} ${source})
  target_link_libraries(${name} PRIVATE tidewatch_testsupport Qt6::Test)
  add_test(NAME ${name} COMMAND ${name})
  set_tests_properties(${name} PROPERTIES LABELS ${label} TIMEOUT 300
    ENVIRONMENT "QT_QPA_PLATFORM=offscreen")
endfunction()

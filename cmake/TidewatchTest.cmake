# Every tests/<area>/Test<Subject>.cpp is one executable and one CTest entry,
# labelled and linked by its area: e2e and render suites run the real service or
# the built program (tidewatch_testservice); surface suites draw (tidewatch_ui);
# every other suite is a unit suite on the core library alone. The decoder's
# fuzzer has a label of its own; it takes its rounds from TIDEWATCH_FUZZ_ROUNDS
# as ctest passes it on (a small count when unset).
function(tidewatch_add_test source)
  get_filename_component(name ${source} NAME_WE)
  get_filename_component(dir ${source} DIRECTORY)
  get_filename_component(area ${dir} NAME)
  set(environment "QT_QPA_PLATFORM=offscreen")
  if(area STREQUAL "e2e" OR area STREQUAL "render")
    set(label ${area})
    set(support tidewatch_testservice)
  elseif(area STREQUAL "term")
    # The relay's parts, which stand apart from Qt.
    set(label unit)
    set(support tidewatch_termparts)
  elseif(area STREQUAL "surface")
    set(label unit)
    set(support tidewatch_testcore tidewatch_ui)
  else()
    set(label unit)
    set(support tidewatch_testcore)
  endif()
  if(name STREQUAL "TestDecodeFuzz")
    set(label fuzz)
  endif()
  add_executable(${name} ${source})
  target_link_libraries(${name} PRIVATE ${support} Qt6::Test)
  add_test(NAME ${name} COMMAND ${name})
  set_tests_properties(${name} PROPERTIES LABELS ${label} TIMEOUT 300 ENVIRONMENT "${environment}")
endfunction()

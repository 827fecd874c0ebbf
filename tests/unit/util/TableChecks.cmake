# Compiles one table file per row below: each breaks one rule of MetricTables.h, which must refuse it and say why.
# cmake -DCOMPILER=... -DINCLUDE=... -DDIRECTORY=... -P TableChecks.cmake
set(good [=[
constexpr const char* defaultMetricGroupId = "abcd0123";
constexpr char defaultMetricSchemaId[] = "s1s2/2/0123cdef";
constexpr MetricRow metricGroupRows[] = {{"First", defaultMetricGroupId}, {"Second2", "abcd0123"}};
constexpr MetricRow metricSchemaRows[] = {{"_a", "s1s2/2/0123cdef"}, {"B_2Schema", "s1s2/2/0123cdef"}};
]=])

function(compile_table name table expected)
  file(WRITE "${DIRECTORY}/${name}.inc" "${table}")
  file(WRITE "${DIRECTORY}/${name}.cpp"
    "#define NIPC_METRIC_TABLES \"${DIRECTORY}/${name}.inc\"\n#include \"MetricTables.h\"\n")
  execute_process(COMMAND "${COMPILER}" -std=c++17 -fsyntax-only "-I${INCLUDE}" "${DIRECTORY}/${name}.cpp"
    RESULT_VARIABLE result ERROR_VARIABLE errors)
  if(expected STREQUAL "accepted")
    if(NOT result EQUAL 0)
      message(SEND_ERROR "${name} is refused:\n${errors}")
    endif()
  else()
    string(FIND "${errors}" "${expected}" at)
    if(result EQUAL 0 OR at EQUAL -1)
      message(SEND_ERROR "${name} is not refused with \"${expected}\":\n${errors}")
    endif()
  endif()
endfunction()

function(refuse name from to expected)
  string(REPLACE "${from}" "${to}" table "${good}")
  if(table STREQUAL good)
    message(SEND_ERROR "${name} changes nothing")
  endif()
  compile_table(${name} "${table}" "${expected}")
endfunction()

compile_table(good "${good}" accepted)
refuse(group_id_short [["abcd0123"]] [["abcd012"]] "a metric group id is 8")
refuse(group_id_upper [[2", "abcd]] [[2", "Abcd]] "a metric group id is 8")
refuse(group_key_lower [["Second2"]] [["second2"]] "a metric group's key is")
refuse(group_key_underscore [["Second2"]] [["Second_2"]] "a metric group's key is")
refuse(group_key_twice [["Second2"]] [["First"]] "a metric group's key stands once")
refuse(first_group_not_default [["First", defaultMetricGroupId]] [["First", "abcd0124"]] "the first metric group has")
refuse(schema_id_part [[, {"B_2Schema", "s1s2/2/]] [[, {"B_2Schema", "s1s2/3/]] "a metric schema id is 4")
refuse(schema_id_hex [[a", "s1s2/2/0123cdef"]] [[a", "s1s2/2/0123cdeg"]] "a metric schema id is 4")
refuse(schema_id_long [[a", "s1s2/2/0123cdef"]] [[a", "s1s2/2/0123cdef0"]] "a metric schema id is 4")
refuse(schema_key_digit [["B_2Schema"]] [["2B"]] "a metric schema's key is")
refuse(schema_key_empty [["B_2Schema"]] [[""]] "a metric schema's key is")
refuse(schema_key_twice [["B_2Schema"]] [["_a"]] "a metric schema's key stands once")
refuse(default_schema [[[] = "s1s2]] [[[] = "S1s2]] "the default metric schema id is 4")

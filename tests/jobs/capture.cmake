# The capture jobs and the launcher. A job's queues and its settings file are named by its id only, which is
# why these tests hold the lock on host-wide names.
kestrel_add_program(capture_job_test_worker SOURCES ${CMAKE_CURRENT_LIST_DIR}/capture_job_test_worker.cpp
  LINKS kestrel::foundation)
set_target_properties(capture_job_test_worker PROPERTIES
  RUNTIME_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/tests)

kestrel_add_test(capture_job_tests THREADS SERIAL
  SOURCES
    ${CMAKE_CURRENT_LIST_DIR}/capture_job_test.cpp
    ${CMAKE_CURRENT_LIST_DIR}/capture_request_test.cpp
    ${CMAKE_CURRENT_LIST_DIR}/capture_rules_test.cpp
    ${CMAKE_CURRENT_LIST_DIR}/capture_settings_file_test.cpp
    ${CMAKE_CURRENT_LIST_DIR}/capture_warnings_test.cpp
    ${CMAKE_CURRENT_LIST_DIR}/job_launcher_failures_test.cpp
    ${CMAKE_CURRENT_LIST_DIR}/job_launcher_test.cpp
    ${CMAKE_CURRENT_LIST_DIR}/job_messages_test.cpp
    ${CMAKE_CURRENT_LIST_DIR}/worker_watch_test.cpp
  LINKS kestrel::jobs kestrel_stream_fixtures)
target_compile_definitions(capture_job_tests PRIVATE
  KESTREL_TEST_WORKER="$<TARGET_FILE:capture_job_test_worker>")
add_dependencies(capture_job_tests capture_job_test_worker)

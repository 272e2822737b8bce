# Refusals of the system. A program of its own, because these calls go through the test's versions of them.

# The entry point as a function of another name.
add_library(kestrel_manager_entry STATIC ${KESTREL_SOURCE_ROOT}/src/service/main.cpp)
target_compile_definitions(kestrel_manager_entry PRIVATE main=kestrelManagerMain)
target_link_libraries(kestrel_manager_entry PUBLIC kestrel::service)
kestrel_configure_target(kestrel_manager_entry)

kestrel_add_test(service_failure_tests
  SOURCES
    ${CMAKE_CURRENT_LIST_DIR}/daemon_failures_test.cpp
    ${CMAKE_CURRENT_LIST_DIR}/launch_failures_test.cpp
    ${CMAKE_CURRENT_LIST_DIR}/manager_failures_test.cpp
    ${CMAKE_CURRENT_LIST_DIR}/socket_failures_test.cpp
    ${CMAKE_CURRENT_LIST_DIR}/system_refusals.cpp
  LINKS kestrel_system_harness kestrel_manager_entry
  THREADS)
foreach(name
    accept4 chdir daemon eventfd fork fseeko listen mq_close mq_open pthread_create send setsid setsockopt socket
    waitpid _Znwm)
  target_link_options(service_failure_tests PRIVATE LINKER:--wrap=${name})
endforeach()

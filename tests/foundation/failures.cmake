# Refusals of the system. A program of its own, because these calls go through the test's versions of them.
kestrel_add_test(foundation_failure_tests
  SOURCES
    ${CMAKE_CURRENT_LIST_DIR}/system_failures_test.cpp
  LINKS kestrel::foundation)
target_link_options(foundation_failure_tests PRIVATE
  LINKER:--wrap=pthread_attr_init
  LINKER:--wrap=pthread_mutex_init
  LINKER:--wrap=pthread_mutex_unlock
  LINKER:--wrap=bind
  LINKER:--wrap=sendto
  LINKER:--wrap=_ZnamRKSt9nothrow_t)

# Logging, OS wrappers, events and the callback registry: all of it is used by several threads at once.
kestrel_add_test(foundation_thread_tests
  SOURCES
    ${CMAKE_CURRENT_LIST_DIR}/c_file_log_test.cpp
    ${CMAKE_CURRENT_LIST_DIR}/callback_lib_test.cpp
    ${CMAKE_CURRENT_LIST_DIR}/event_wrapper_test.cpp
    ${CMAKE_CURRENT_LIST_DIR}/file_logger_test.cpp
    ${CMAKE_CURRENT_LIST_DIR}/fixed_text_test.cpp
    ${CMAKE_CURRENT_LIST_DIR}/logger_levels_test.cpp
    ${CMAKE_CURRENT_LIST_DIR}/logger_life_test.cpp
    ${CMAKE_CURRENT_LIST_DIR}/logger_test.cpp
    ${CMAKE_CURRENT_LIST_DIR}/message_queue_test.cpp
    ${CMAKE_CURRENT_LIST_DIR}/net_logger_test.cpp
    ${CMAKE_CURRENT_LIST_DIR}/posix_wrappers_test.cpp
    ${CMAKE_CURRENT_LIST_DIR}/queue_messages_test.cpp
  LINKS kestrel::foundation
  THREADS SHARDS 4)

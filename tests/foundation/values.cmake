# Value types, texts, files and programs.
kestrel_add_test(foundation_tests SHARDS 2
  SOURCES
    app_launch_test.cpp
    argument_list_test.cpp
    error_codes_test.cpp
    file_io_test.cpp
    file_node_test.cpp
    file_util_test.cpp
    string_util_test.cpp
    time_util_test.cpp
  LINKS kestrel::foundation
  THREADS)

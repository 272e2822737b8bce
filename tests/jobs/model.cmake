kestrel_add_test(job_model_tests SHARDS 2
  SOURCES input_field_test.cpp job_index_test.cpp job_queue_test.cpp job_test.cpp
  LINKS kestrel::jobs
  THREADS)

// The directories that the build chose. A library of its own: a program that defines these two itself, with
// other values, is linked with its own.

extern char KESTREL_CONFIG_PARENT_DIR[260];
extern char KESTREL_LOG_PARENT_DIR[260];

char KESTREL_CONFIG_PARENT_DIR[260] = KESTREL_DEFAULT_CONFIG_PARENT_DIR;
char KESTREL_LOG_PARENT_DIR[260] = KESTREL_DEFAULT_LOG_PARENT_DIR;

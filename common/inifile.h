// INI settings files: a whole file is loaded into a fixed buffer and scanned
// line by line for "[section]" and "key=value". Matching is deliberately
// simple and existing configuration files rely on it: section and key names
// match by prefix, there are no spaces around "=", comments (";") only start
// at column 0, and values are taken as they stand. Argument errors abort the
// process with an assertion.
#pragma once

// A settings file is always loaded whole into a buffer of this size.
inline constexpr int MAX_FILE_SIZE = 16384;

// Loads file into buf (NUL-terminated; a 0xFF byte ends the text). Returns 1,
// or 0 when the file cannot be opened (*file_size is then 0). A file of
// MAX_FILE_SIZE bytes or more aborts.
int load_ini_file(const char *file, char *buf, int *file_size);

// Finds key in section within buf. Positions are indexes into buf, -1 when
// not found: section start just after "[", section end at the first non-space
// character after "]"; key start/end (end just before "="); value start just
// after "=" and value end at the line end (exclusive). Returns 1 when found.
int parse_file(const char *section, const char *key, const char *buf, int *sec_s, int *sec_e, int *key_s,
               int *key_e, int *value_s, int *value_e);

// Copies the value (cut to size - 1 characters) into value and returns 1; or
// copies default_value with strncpy(value, default_value, size) when given
// and returns 0.
int read_profile_string(const char *section, const char *key, char *value, int size,
                        const char *default_value, const char *file);

// atoi of the value, or default_value when the key is not found.
int read_profile_int(const char *section, const char *key, int default_value, const char *file);

// Rewrites file with key=value set in section (appending the section or the
// key when missing). Returns 1, or 0 when the file cannot be written or the
// result would not fit in MAX_FILE_SIZE - 1 characters (file left as it was).
int write_profile_string(const char *section, const char *key, const char *value, const char *file);

// Where the program is installed, and the search for configuration files along a path of
// directory templates.
//
// A search path is one string of templates separated by '|' and tried in order. A template may
// hold "$(NAME)" for an environment variable and "$(progpath)" for the installation prefix; an
// environment variable named progpath takes precedence over the detected prefix.
//
// All functions work on buffers of the caller and never allocate. An output buffer's size is in
// bytes and counts the terminating NUL.
#pragma once

#include <cstddef>

extern const char* prog_name;      // the program's file name
extern char prog_path[1024];       // the installation prefix, empty until detected
extern char ENV_PATH_PATH[10240];  // PATH with every ':' as '|'

namespace tarvo {

// Where AETitleMap and LocalStoreDir are looked for.
inline constexpr char configuration_search_path[] =
    "/etc/tarvo/override|$(progpath)/share/tarvo/override/etc|$(HOME)/.tarvo/etc|"
    "$(progpath)/share/tarvo/etc|/etc/tarvo";

}  // namespace tarvo

// Fills prog_name, prog_path and ENV_PATH_PATH from the first command-line word, which must stay
// alive. The prefix is the executable's directory without trailing '/' and without a final
// "/bin". Always returns 0.
int detect_installpath(const char* first_word);

// Expands the variables of `path` in place. Returns 0, or 1 when a variable is not set, a "$(" is
// never closed (said on standard error) or the result does not fit.
[[nodiscard]] int TVPathExpandEnvironment(char* path, std::size_t size);

// The first candidate (element + '/' + name) that passes access(2) with `mode`, written to
// `output`; null when none does. Elements that cannot be expanded are skipped.
char* getfilepath(const char* search_path, const char* name, int mode, char* output,
                  std::size_t size);

// The usable element of that number (from 0), expanded into `output`; null when there is none.
char* getpathcomponent(const char* search_path, unsigned index, char* output, std::size_t size);

// directory + '/' + name; either may be null or empty.
char* getfilebase(const char* directory, const char* name, char* output, std::size_t size);

// The home directory (HOME, else USERPROFILE, else ".") + '/' + name; null when it does not fit.
char* gethomepath(const char* name, char* output, std::size_t size);

// Makes a directory unless it is there: 0 it is a directory now, -1 it could not be made, -2
// something else has that name.
[[nodiscard]] int try_mkdir(const char* path);

#include "support/paths.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "support/bounded_string.h"
#include "support/file_helpers.h"

const char* prog_name = "";
char prog_path[1024];
char ENV_PATH_PATH[10240];

namespace {

constexpr std::size_t element_size = 1024;

// Copies the text before the next `separator` into `element` (cut at `size` - 1 characters) and
// moves `path` behind it; null in `path` says that this was the last element.
void take_element(const char*& path, char separator, char* element, std::size_t size) {
    const char* const end = std::strchr(path, separator);
    const std::size_t length =
        end != nullptr ? static_cast<std::size_t>(end - path) : std::strlen(path);
    const std::size_t kept = std::min(length, size - 1);
    std::memcpy(element, path, kept);
    element[kept] = '\0';
    path = end != nullptr ? end + 1 : nullptr;
}

void cut_at_last_slash(char* path) {
    if (char* const slash = std::strrchr(path, '/')) *slash = '\0';
}

// Finds the directory of a program that was started by its bare name. Leaves `directory` empty
// when PATH is unset or holds no such program.
void find_in_path(const char* name, char* directory, std::size_t size) {
    directory[0] = '\0';
    const char* path = std::getenv("PATH");
    while (path != nullptr) {
        char candidate[element_size];
        take_element(path, ':', candidate, sizeof candidate);
        if (vr_strncat(candidate, "/", sizeof candidate) == nullptr ||
            vr_strncat(candidate, name, sizeof candidate) == nullptr ||
            ::access(candidate, X_OK) != 0) {
            continue;
        }
        vr_strncpy(directory, candidate, size);
        cut_at_last_slash(directory);
        return;
    }
}

void strip_to_prefix(char* path) {
    std::size_t length = std::strlen(path);
    while (length > 0 && path[length - 1] == '/') path[--length] = '\0';
    // A prefix that is just "/bin" stays.
    if (length > 4 && std::strcmp(path + length - 4, "/bin") == 0) path[length - 4] = '\0';
}

const char* variable_value(const char* name) {
    const char* const value = std::getenv(name);
    if (value == nullptr && std::strcmp(name, "progpath") == 0) return prog_path;
    return value;
}

// Replaces the reference from `start` to `end` (its ')') by `value`. Returns the position behind
// the inserted value, or null when the result would not fit into the `size` bytes of `path`.
char* replace_reference(char* path, std::size_t size, char* start, const char* end,
                        std::string_view value) {
    const std::size_t tail_length = std::strlen(end + 1);
    const std::size_t head_length = static_cast<std::size_t>(start - path);
    if (head_length + value.size() + tail_length >= size) return nullptr;
    std::memmove(start + value.size(), end + 1, tail_length + 1);
    return start + value.copy(start, value.size());
}

// The candidate for one search path element. Returns false when the element is unusable.
bool make_candidate(char* element, const char* name, char* output, std::size_t size) {
    if (TVPathExpandEnvironment(element, element_size) != 0) return false;
    output[0] = '\0';
    if (element[0] != '\0') vr_strncpy(output, element, size);
    if (name != nullptr && name[0] != '\0') {
        vr_strncat(output, "/", size);
        vr_strncat(output, name, size);
    }
    return true;
}

}  // namespace

int detect_installpath(const char* first_word) {
    const char* const slash = std::strrchr(first_word, '/');
    prog_name = slash != nullptr ? slash + 1 : first_word;
    if (slash != nullptr) {
        vr_strncpy(prog_path, first_word, sizeof prog_path);
        cut_at_last_slash(prog_path);
    } else {
        find_in_path(prog_name, prog_path, sizeof prog_path);
    }
    strip_to_prefix(prog_path);
    const char* const path = std::getenv("PATH");
    if (path != nullptr && path[0] != '\0') {
        vr_strncpy(ENV_PATH_PATH, path, sizeof ENV_PATH_PATH);
        std::replace(ENV_PATH_PATH, ENV_PATH_PATH + std::strlen(ENV_PATH_PATH), ':', '|');
    }
    return 0;
}

int TVPathExpandEnvironment(char* path, std::size_t size) {
    char* position = path;
    while ((position = std::strchr(position, '$')) != nullptr) {
        if (position[1] != '(') {
            ++position;
            continue;
        }
        char* const end = std::strchr(position, ')');
        if (end == nullptr) {
            std::fprintf(stderr, "Cannot correctly expand path:%s.\n", position);
            return 1;
        }
        *end = '\0';
        const char* const value = variable_value(position + 2);
        *end = ')';
        if (value == nullptr) return 1;
        position = replace_reference(path, size, position, end, value);
        if (position == nullptr) return 1;
    }
    return 0;
}

char* getfilepath(const char* search_path, const char* name, int mode, char* output,
                  std::size_t size) {
    if (search_path == nullptr || search_path[0] == '\0' || size == 0) return nullptr;
    while (search_path != nullptr) {
        char element[element_size];
        take_element(search_path, '|', element, sizeof element);
        if (make_candidate(element, name, output, size) && ::access(output, mode) == 0) {
            return output;
        }
    }
    return nullptr;
}

char* getpathcomponent(const char* search_path, unsigned index, char* output, std::size_t size) {
    if (search_path == nullptr || search_path[0] == '\0' || size == 0) return nullptr;
    while (search_path != nullptr) {
        take_element(search_path, '|', output, size);
        if (TVPathExpandEnvironment(output, size) != 0) continue;
        if (index-- == 0) return output;
    }
    return nullptr;
}

char* getfilebase(const char* directory, const char* name, char* output, std::size_t size) {
    if (size == 0) return output;
    output[0] = '\0';
    if (directory != nullptr && directory[0] != '\0') vr_strncpy(output, directory, size);
    if (name != nullptr && name[0] != '\0') {
        vr_strncat(output, "/", size);
        vr_strncat(output, name, size);
    }
    return output;
}

char* gethomepath(const char* name, char* output, std::size_t size) {
    const char* home = std::getenv("HOME");
    if (home == nullptr) home = std::getenv("USERPROFILE");
    if (home == nullptr) home = ".";
    if (std::strlen(home) + std::strlen(name) + 2 >= size) return nullptr;
    std::snprintf(output, size, "%s/%s", home, name);
    return output;
}

int try_mkdir(const char* path) {
    struct stat status {};
    if (::stat(path, &status) != 0) return TVCompat_mkdir(path, 0777) == 0 ? 0 : -1;
    return S_ISDIR(status.st_mode) ? 0 : -2;
}

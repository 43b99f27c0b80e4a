// What a server process does to itself: detaching, and giving up privileges.
#pragma once

// Detaches from the terminal: the child closes the descriptors 0 to 1023, starts a session of its
// own and reads /dev/null as 0, 1 and 2. Returns -1 when the fork failed, 1 in the parent and 0
// in the detached child.
[[nodiscard]] int daemonize();

// Switches the real, effective and saved id, and as root the supplementary groups as well.
// A user dropped to without a group keeps the main group of whoever started the server.
// Returns 0, 1 when the name is unknown, -1 when the switch was refused.
[[nodiscard]] int drop_to_group(const char* name);
[[nodiscard]] int drop_to_user(const char* name);

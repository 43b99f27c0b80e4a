// The command line.
#pragma once

// Parses the options into server_config. Text options point at the arguments, which must stay
// alive; only the character set is copied. Returns false after printing the usage text on
// standard error, for an unknown option and for -h.
[[nodiscard]] bool parse_options(int argc, char** argv);

#include "monitor/serverstate.h"

serverstate server_state;

#include "monitor/aetitle_map.h"

AETitleMap aetitle_map;

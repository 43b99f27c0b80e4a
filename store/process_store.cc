// Alone in its file: a program that never names local_store does not link it, hence does not run
// its constructor.
#include "store/local_store.h"

LocalStore local_store;

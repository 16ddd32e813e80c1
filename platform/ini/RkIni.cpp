#include <rkini.h>

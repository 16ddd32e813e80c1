#include <rkosdep.h>

// The sizes of system properties, for <cutils/properties.h>.
#pragma once

#define PROP_NAME_MAX 32
#define PROP_VALUE_MAX 92

// Stands in for the header of the device's C library that the packaged
// cutils/properties.h asks for; the distribution does not bring it.
#pragma once

#define PROP_NAME_MAX 32
#define PROP_VALUE_MAX 92

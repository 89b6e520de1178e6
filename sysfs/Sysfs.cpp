#include "sysfs/Sysfs.h"

Sysfs::~Sysfs() = default;

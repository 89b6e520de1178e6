#include "modules/PowerControlInterface.h"

PowerControlInterface::~PowerControlInterface() = default;

#include "modules/ModuleControllerInterface.h"

ModuleControllerInterface::~ModuleControllerInterface() = default;

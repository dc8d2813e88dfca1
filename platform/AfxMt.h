// All of the framework's synchronisation classes.
#pragma once

#include "platform/CCriticalSection.h"
#include "platform/CEvent.h"
#include "platform/Kernel.h"

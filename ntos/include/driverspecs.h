#pragma once
#include <sal.h>

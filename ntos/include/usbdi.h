#pragma once
#include <usb.h>

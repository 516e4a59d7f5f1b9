// Turns one meter's parameter map into a running driver.
#pragma once

#include "drivers/base/base_driver.h"

class CConnector;
class CJSONRPCConnector;

// Picks the driver class by the exact "manufacturer" value, wires it to the client and
// the shared connector, and starts its thread named after the manufacturer.
// The caller owns the result.
CMcdBaseDriver* CreateDriver(ParamMap meter, CConnector* connector, CJSONRPCConnector* client);

// The driver class for a manufacturer, constructed but not configured or started.
CMcdBaseDriver* NewDriverFor(const std::string& manufacturer);

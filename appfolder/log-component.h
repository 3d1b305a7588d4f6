#ifndef BRIMLOCK_APPFOLDER_LOG_COMPONENT_H
#define BRIMLOCK_APPFOLDER_LOG_COMPONENT_H

#include <string>

// The component under which this library and service/ log.
inline const std::string kServiceComponent = "service_debug";

#endif

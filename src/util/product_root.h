// Where the panel itself is installed.
#pragma once

/// The product root. A fixed place: the configuration file's key of this name is not asked.
inline constexpr const char* PRODUCT_ROOT_D = "/opt/zcp";

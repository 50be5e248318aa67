// Everything a host needs to load and drive a protocol plug-in.
#pragma once

#include "protocol/aerror.h"
#include "protocol/host_interfaces.h"
#include "protocol/iprotocol.h"
#include "protocol/plugin.h"
#include "protocol/records.h"

// SPDX-License-Identifier: Apache-2.0
// Everything of the C++ layer, for a program that serves or calls over the bus by itself. A program
// that only calls the agent needs SR_API.h alone.
#ifndef SENTREL_SENTREL_H
#define SENTREL_SENTREL_H

#include "SR_API.h"
#include "SR_Callback.h"
#include "SR_DBusAdaptor.h"
#include "SR_DBusBacklog.h"
#include "SR_DBusConnection.h"
#include "SR_DBusCredentials.h"
#include "SR_DBusDispatcher.h"
#include "SR_DBusError.h"
#include "SR_DBusFilter.h"
#include "SR_DBusInterface.h"
#include "SR_DBusMessage.h"
#include "SR_DBusProxy.h"
#include "SR_DBusReturnAddress.h"
#include "SR_DBusTimeout.h"
#include "SR_DBusWatch.h"
#include "SR_Log.h"
#include "SR_MainLoop.h"
#include "SR_Message.h"

#endif

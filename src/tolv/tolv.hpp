// Public header: all of tolv.
#ifndef TOLV_TOLV_HPP
#define TOLV_TOLV_HPP

#include "tolv/vex/tolvAcc.hpp"
#include "tolv/vex/tolvApp.hpp"
#include "tolv/vex/tolvBase.hpp"
#include "tolv/vex/tolvChannel.hpp"
#include "tolv/vex/tolvCond.hpp"
#include "tolv/vex/tolvConn.hpp"
#include "tolv/vex/tolvDataBuff.hpp"
#include "tolv/vex/tolvDispatcher.hpp"
#include "tolv/vex/tolvError.hpp"
#include "tolv/vex/tolvEventHandler.hpp"
#include "tolv/vex/tolvExport.hpp"
#include "tolv/vex/tolvFunction.hpp"
#include "tolv/vex/tolvMutex.hpp"
#include "tolv/vex/tolvSctp.hpp"
#include "tolv/vex/tolvSctpLinkCheck.hpp"
#include "tolv/vex/tolvService.hpp"
#include "tolv/vex/tolvSock6Acc.hpp"
#include "tolv/vex/tolvSock6Channel.hpp"
#include "tolv/vex/tolvSockAcc.hpp"
#include "tolv/vex/tolvSockChannel.hpp"
#include "tolv/vex/tolvSockConn.hpp"
#include "tolv/vex/tolvSocket.hpp"
#include "tolv/vex/tolvThPool.hpp"
#include "tolv/vex/tolvThread.hpp"
#include "tolv/vex/tolvThreadSafety.hpp"
#include "tolv/vex/tolvTimeValue.hpp"
#include "tolv/vex/tolvTrace.hpp"

#endif

#pragma once

#include <cstdint>

namespace Morva {

/// The result of every message handler and every wait.
enum MsgResult : std::int32_t {
    eMsgResultUnknown = -1,    ///< no result yet
    eMsgResultOk = 0,          ///< done; a wait ended because its condition was met
    eMsgResultHandled = 1,     ///< the handler took the message
    eMsgResultNotHandled = 2,  ///< no handler took it
    eMsgResultTimeout = 3,     ///< a wait ran out
    eMsgResultIpcError = 4,    ///< the link to the hub failed
    eMsgResultInvalidArgs = 5, ///< the message was malformed
    eMsgResultExit = 6,        ///< the thread is to leave its message loop
    eMsgResultFailed = 7       ///< the operation failed
};

} // namespace Morva

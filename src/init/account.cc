// init/account.cc - commands to the service about the account: update,
// activation, application, money card and password change.
//
// Each builds a dictionary with MainCmd first, encodes it on the stack and
// sends it under AS code 999; nothing waits for the reply, which reaches the
// host callback from the WAN callback. Passwords travel as digests but in
// the activation, where the service wants the password itself. The calls
// keep no state and may be made from any thread, the host callback
// included.
#include <cstring>

#include "arbor/send.h"
#include "arbor/support.h"
#include "arbor/sys.h"
#include "strutils/wire_text.h"

namespace {

constexpr int32_t kAsAccount = 999;
constexpr int32_t kCommandBuffer = 1024;

// A password's digest, made with its strlen into a zeroed buffer.
struct Digest {
  explicit Digest(const char* password) {
    MakeMD5Int64(password, static_cast<int32_t>(strnlen(password, INT32_MAX)),
                 text);
  }
  char text[128] = {};
};

const char* or_empty(const char* text) { return text != nullptr ? text : ""; }

// Encodes dict into a buffer of `room` bytes, sends it to the service and
// destroys dict. A text that does not fit is sent as nothing, which the
// sender refuses with its "send error" line.
void send_command(Dict dict, int32_t room) {
  char buffer[kCommandBuffer] = {};
  const int32_t length = DictEncode(buffer, room, dict);
  DictDestroy(dict);
  sendasc(0, kAsAccount, buffer, static_cast<uint32_t>(length),
          ARBOR_SEND_CONTROL);
}

Dict command(int32_t main_cmd) {
  Dict dict = DictCreate(nullptr, 0);
  DictSetInt(dict, "MainCmd", main_cmd);
  return dict;
}

}  // namespace

extern "C" {

ARBOR_EXPORT void DoSysUpdatePc(void) { send_command(command(26), 254); }

ARBOR_EXPORT void DoActivationAccounts(const char* devid, const char* password,
                                       const char* email) {
  if (devid == nullptr || password == nullptr || email == nullptr) return;
  Dict dict = command(31);
  DictSetStr(dict, "devid", devid);
  DictSetStr(dict, "Psw", password);
  DictSetStr(dict, "email", email);
  send_command(dict, kCommandBuffer);
}

// params that do not parse are refused rather than sent without the keys
// the caller meant to give.
ARBOR_EXPORT void DoApplicationAccounts(const char* id, const char* password,
                                        const char* params) {
  if (id == nullptr || password == nullptr || params == nullptr) return;
  Dict dict = dict_of(params);
  if (dict == nullptr) {
    ARBOR_LOG(0, "%s: params are not dictionary text", "DoApplicationAccounts");
    return;
  }
  const Digest digest(password);
  DictSetInt(dict, "MainCmd", 30);
  DictSetStr(dict, "id", id);
  DictSetStr(dict, "Psw", digest.text);
  send_command(dict, kCommandBuffer);
}

ARBOR_EXPORT void DoAddMoneyCard(const char* id, const char* card) {
  Dict dict = command(28);
  DictSetStr(dict, "id", or_empty(id));
  DictSetStr(dict, "moneycard", or_empty(card));
  send_command(dict, kCommandBuffer);
}

ARBOR_EXPORT void DoSysUpdatePasswd(const char* id, const char* old_password,
                                    const char* new_password) {
  const Digest fresh(or_empty(new_password));
  const Digest old(or_empty(old_password));
  Dict dict = command(25);
  DictSetStr(dict, "id", or_empty(id));
  DictSetStr(dict, "Psw", fresh.text);
  DictSetStr(dict, "OldPsw", old.text);
  send_command(dict, kCommandBuffer);
}

}  // extern "C"

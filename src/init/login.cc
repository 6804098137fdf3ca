// init/login.cc - the link to the service: connecting, signing in and out,
// and sorting what the WAN side of the transport reports.
//
// Three threads meet here only through SysState and the timed queue:
// SysLogin runs on a host thread and starts the connection; the sign-in
// text is built and the outcome reported on the timed queue's worker; and
// on_wan_callback runs on the transport's thread. An attempt's sequence
// number ("SEQ", echoed by the service) ties a reply to its attempt: every
// outcome that reaches the host from the queue is checked against the
// latest attempt's number, so anything late from an earlier attempt reaches
// nobody. A time-out entry posted with each attempt is never cancelled; it
// simply finds a newer number when another attempt has begun.
#include <array>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>

#include "arbor/asc.h"
#include "arbor/device_class.h"
#include "arbor/rsc.h"
#include "arbor/send.h"
#include "arbor/strutils.h"
#include "arbor/support.h"
#include "arbor/sys.h"
#include "arbor/transport.h"
#include "init/link.h"
#include "init/sys_state.h"
#include "strutils/wire_text.h"

namespace {

constexpr int32_t kAsSignIn = 333;      // QV_SYS_REG, to the service
constexpr int32_t kAsSignInOk = 334;    // QV_SYS_REG_OK
constexpr int32_t kAsSignInFail = 335;  // QV_SYS_REG_FAIL
constexpr int32_t kAsControl = 100;
constexpr int32_t kAsAccount = 999;
constexpr int32_t kLoginFailed = -3;
constexpr uint32_t kMaxServiceRows = 1000;
// The widest "SEQ" a sign-in text can carry, for the size test of SysLogin.
constexpr char kWidestSeq[] = "4294967295";

// Host callback codes of this link.
constexpr int32_t kHostSignedIn = 0;
constexpr int32_t kHostLinkFailed = 3;
constexpr int32_t kHostConnected = 6;
constexpr int32_t kHostTimedOut = 14;

std::atomic<uint32_t> login_timeout_ms{180000};

// sys_.login_text is written on the worker and read there, and copied on
// the transport's thread when a connection attempt fails; the lock keeps
// that copy from seeing half a text.
std::mutex login_text_lock;

std::string login_text_copy() {
  std::lock_guard hold(login_text_lock);
  return std::string(sys_.login_text,
                     strnlen(sys_.login_text, sizeof sys_.login_text));
}

// A SysVer field as a string: it may fill its 32 bytes with no NUL.
std::string version_field(const char (&field)[32]) {
  return std::string(field, strnlen(field, sizeof field));
}

const char* or_empty(const char* text) { return text != nullptr ? text : ""; }

// The sign-in dictionary: params with userType, verNum, id, SEQ and, for a
// password that is not empty, its digest, set in that order. Null when
// params is not dictionary text (or memory runs out).
Dict sign_in_dict(const char* id, const char* password, const char* params,
                  const char* seq) {
  Dict dict = dict_of(params);
  if (dict == nullptr) return nullptr;
  DictSetStr(dict, "userType", version_field(sys_.userType).c_str());
  DictSetStr(dict, "verNum", version_field(sys_.verNum).c_str());
  DictSetStr(dict, "id", id);
  DictSetStr(dict, "SEQ", seq);
  if (password[0] != '\0') {
    char digest[72] = {};
    const size_t length = std::strlen(password);
    MakeMD5Int64(password,
                 static_cast<int32_t>(std::min<size_t>(length, INT32_MAX)),
                 digest);
    DictSetStr(dict, "Psw", digest);
  }
  return dict;
}

// Posts one of this file's jobs; the strings are copied by the queue.
void post(uint32_t delay, TqHandler fn, uintptr_t arg,
          const char* text = nullptr) {
  const char* argv[1] = {text};
  sys_post_timed(delay, fn, arg, text != nullptr ? 1 : 0, argv);
}

// The one road by which an outcome with text reaches the host from the
// queue (codes 0, 3 and 14): only when the text's "SEQ" is the latest
// attempt's. At SysExit the entry is flushed and does nothing.
void login_result_job(int32_t elapsed, uintptr_t code, int32_t argc,
                      char** argv) {
  if (elapsed > 0 || argc < 1 || argv[0] == nullptr) return;
  Dict dict = dict_of(argv[0]);
  if (dict == nullptr) return;
  const size_t length = std::strlen(argv[0]);
  const auto seq = static_cast<uint32_t>(DictGetInt(dict, "SEQ"));
  if (DictGetStr(dict, "SEQ") != nullptr &&
      seq == sys_.login_seq.load(std::memory_order_relaxed)) {
    sys_notify_host(static_cast<int32_t>(code), argv[0],
                    static_cast<int32_t>(length));
  }
  DictDestroy(dict);
}

void link_down_job(int32_t, uintptr_t code, int32_t, char**) {
  sys_notify_host(static_cast<int32_t>(code), nullptr, 0);
}

// Builds this attempt's sign-in text and arms its time-out. argv: id,
// password, params. A text that does not fit (SysVer changed since
// SysLogin measured it) leaves the previous one, logged.
void login_job(int32_t, uintptr_t, int32_t argc, char** argv) {
  const uint32_t seq =
      sys_.login_seq.fetch_add(1, std::memory_order_relaxed) + 1;
  if (argc < 3) return;
  char seq_text[16];
  std::snprintf(seq_text, sizeof seq_text, "%u", seq);
  Dict dict = sign_in_dict(or_empty(argv[0]), or_empty(argv[1]),
                           or_empty(argv[2]), seq_text);
  if (dict != nullptr) {
    const int32_t size = DictEncodedSize(dict);
    std::lock_guard hold(login_text_lock);
    if (size > 0 && size < static_cast<int32_t>(sizeof sys_.login_text)) {
      DictEncode(sys_.login_text, sizeof sys_.login_text, dict);
    } else if (size > 0) {
      ARBOR_LOG(0, "sign-in text of %d bytes does not fit in %zu", size,
                sizeof sys_.login_text - 1);
    }
  }
  DictDestroy(dict);
  post(login_timeout_ms.load(std::memory_order_relaxed), login_result_job,
       kHostTimedOut, login_text_copy().c_str());
}

void sign_in(int32_t, uintptr_t, int32_t, char**) {
  const std::string text = login_text_copy();
  ARBOR_LOG(3, "Login start: QV_SYS_REG, %s.", text.c_str());
  sendasc(0, kAsSignIn, text.c_str(), static_cast<uint32_t>(text.size()),
          ARBOR_SEND_CONTROL);
}

// Fills the connection record. The caller has checked host and port.
void get_proxy_info(const char* host, int32_t port, const char* options,
                    ConnectTarget* target) {
  ARBOR_LOG(2, "%s: %s, %d, %s", "get_proxy_info", host, port,
            or_empty(options));
  *target = ConnectTarget{};
  target->protocol = QV_PROTOCOL_DEFAULT;
  std::memcpy(target->host, host, std::strlen(host) + 1);
  target->port = static_cast<uint16_t>(port);
  Dict dict = dict_of(options);
  const char* protocol = DictGetStr(dict, "Protocol");
  if (protocol != nullptr && std::strcmp(protocol, "TCP") == 0)
    target->protocol = QV_PROTOCOL_TCP;
  DictDestroy(dict);
}

// Refused sign-in: the host hears the refusal code when it is one of those
// the service defines; "SEQ" is not looked at on this road.
void on_login_refused(const char* payload, uint32_t size) {
  ARBOR_LOG(0, "LOGIN: QV_SYS_REG_FAIL.");
  const auto length = static_cast<int32_t>(strnlen(payload, size));
  Dict dict = dict_of(payload, static_cast<size_t>(length));
  const int32_t code = DictGetInt(dict, "errorcod");
  if (code == 1 || code == 2 || code == 8 || code == 9 || code == 10)
    sys_notify_host(code, payload, length);
  DictDestroy(dict);
}

// Accepted sign-in: names the service rows the reply lists, reports to the
// host through the queue (where "SEQ" is matched), and announces this
// peer's resources. The rows are named and the resources announced even
// for a reply of an older attempt: the link is signed in all the same.
void on_login_accepted(const char* payload, uint32_t size) {
  ARBOR_LOG(3, "LOGIN: QV_SYS_REG_OK.");
  if (Dict dict = dict_of(payload, size)) {
    for (uint32_t i = 0; i < kMaxServiceRows; ++i) {
      char key[16];
      std::snprintf(key, sizeof key, "ValueN%u", i);
      const char* value = DictGetStr(dict, key);
      if (value == nullptr) break;
      Dict row = dict_of(value);
      if (row == nullptr) continue;
      const int32_t type = DictGetInt(row, "AsType");
      const int32_t code = DictGetInt(row, "AsCode");
      const char* name = DictGetStr(row, "AsName");
      if (type > 0 && code > 0 && name != nullptr)
        asc_put_code_name(type, code, name);
      DictDestroy(row);
    }
    DictDestroy(dict);
  }
  if (char* text = string_make(payload, payload + size)) {
    post(0, login_result_job, kHostSignedIn, text);
    std::free(text);
  }
  cdef_resources_present();
}

// An account reply: the host hears it at once, then the WAN table's row for
// 999, if any, sees it too.
void on_account_reply(const char* payload, uint32_t size) {
  Dict dict = dict_of(payload, size);
  const int32_t command = DictGetInt(dict, "MainCmd");
  const bool flag = DictGetInt(dict, "Flag") != 0;
  int32_t code = -1;
  bool report = true;
  switch (command) {
    case 25: code = flag ? 4 : 5; break;
    case 26: code = 7; break;
    case 28: code = flag ? 11 : 12; break;
    case 30: code = flag ? 0 : 9; break;
    case 31: code = flag ? 0 : DictGetInt(dict, "errorcod"); break;
    default: report = false; break;
  }
  if (report) sys_notify_host(code, payload, static_cast<int32_t>(size));
  DictDestroy(dict);
  asdispatch(get_wan_cdef(), 0, kAsAccount, payload, size);
}

void on_control_frame(const void* data, uint32_t size) {
  if (data == nullptr || size < 2 || size > 65534) return;
  const auto* bytes = static_cast<const unsigned char*>(data);
  const int32_t asc = bytes[0] | bytes[1] << 8;
  const char* payload = static_cast<const char*>(data) + 2;
  const uint32_t payload_size = size - 2;
  switch (asc) {
    case kAsSignInFail: on_login_refused(payload, payload_size); break;
    case kAsSignInOk: on_login_accepted(payload, payload_size); break;
    case kAsAccount: on_account_reply(payload, payload_size); break;
    default:
      asdispatch(get_wan_cdef(), 0, asc, payload, payload_size);
      break;
  }
}

}  // namespace

void sys_test_set_login_timeout(uint32_t ms) {
  login_timeout_ms.store(ms, std::memory_order_relaxed);
}

void on_wan_callback(uint32_t pipe, uint32_t type, uint32_t size,
                     const void* data) {
  if (sys_.wan_state.load(std::memory_order_relaxed) < 0) {
    ARBOR_LOG(0, "on_wan_callback: wan not avaliable");
    return;
  }
  if (pipe != 0) {
    rsc_wan_data_incoming(pipe, type, data, size);
    return;
  }
  const auto status = static_cast<int32_t>(type);
  switch (type) {
    case 5: case 11: case 12:
      sys_.wan_state.store(status, std::memory_order_relaxed);
      ARBOR_LOG(3, "QVNETS: type=%d, not handled..", status);
      break;
    case QVNETS_FAIL: case QVNETS_UNREACHABLE:
      sys_.wan_state.store(status, std::memory_order_relaxed);
      ARBOR_LOG(0, "QVNETS: type=%d, connect FAIL..", status);
      post(0, login_result_job, kHostLinkFailed, login_text_copy().c_str());
      rsc_wan_clean();
      break;
    case QVNETS_DISCONNECT:
      // The link is down, the sessions stay: the transport may reconnect.
      sys_.wan_state.store(status, std::memory_order_relaxed);
      post(0, link_down_job, kHostLinkFailed);
      break;
    case QVNETS_SUCCESS:
      sys_.wan_state.store(status, std::memory_order_relaxed);
      ARBOR_LOG(3, "QVNETS: connect ok: QVNETS_SUCCESS.");
      post(0, sign_in, 0);
      sys_notify_host(kHostConnected, nullptr, 0);
      break;
    default:
      on_control_frame(data, size);
      break;
  }
}

extern "C" {

// Every refusal is decided before anything is posted or connected, so a
// refused call leaves no job behind. The limits are the records': the
// connection record holds 255 characters of host, the port is 16 bits, and
// the sign-in text (measured with the widest "SEQ") 255 bytes.
ARBOR_EXPORT int32_t SysLogin(const char* id, const char* password,
                              const char* params, const char* host,
                              int32_t port, const char* options) {
  ARBOR_LOG(2, "%s", "SysLogin");
  if (sys_.wan_state.load(std::memory_order_relaxed) < 0) {
    const int32_t state = InitWAN(on_wan_callback);
    sys_.wan_state.store(state, std::memory_order_relaxed);
    if (state < 0) {
      ARBOR_LOG(0, "%s: InitWAN: %d", "SysLogin", state);
      return kLoginFailed;
    }
    sys_.wan_state.store(QVNETS_DISCONNECT, std::memory_order_relaxed);
  }
  id = or_empty(id);
  password = or_empty(password);
  params = or_empty(params);
  if (host == nullptr || host[0] == '\0') {
    ARBOR_LOG(0, "%s: %s, %d, %s", "SysLogin", or_empty(host), port,
              or_empty(options));
    return kLoginFailed;
  }
  const size_t host_length = strnlen(host, sizeof(ConnectTarget::host));
  if (host_length >= sizeof(ConnectTarget::host)) {
    ARBOR_LOG(0, "%s: host name of %zu characters or more refused",
              "SysLogin", host_length);
    return kLoginFailed;
  }
  if (port < 0 || port >= 65535) {
    ARBOR_LOG(0, "%s: port %d outside 0..65534 refused", "SysLogin", port);
    return kLoginFailed;
  }
  Dict dict = sign_in_dict(id, password, params, kWidestSeq);
  const int32_t size = dict != nullptr ? DictEncodedSize(dict) : -1;
  DictDestroy(dict);
  if (size < 0 || size >= static_cast<int32_t>(sizeof sys_.login_text)) {
    ARBOR_LOG(0, "%s: sign-in text refused: %s", "SysLogin",
              size < 0 ? "params do not parse" : "over 255 bytes");
    return kLoginFailed;
  }
  ConnectTarget target;
  get_proxy_info(host, port, options, &target);
  // Posted before the connection is asked for: the worker builds the text
  // before the status that posts the send can arrive.
  const char* argv[3] = {id, password, params};
  sys_post_timed(0, login_job, 0, 3, argv);
  return ConRemoteHostInfo(&target);
}

ARBOR_EXPORT int32_t SysLogout(void) {
  ARBOR_LOG(2, "%s:sigoff", "SysLogout");
  if (sys_.wan_state.load(std::memory_order_relaxed) >= 0) {
    static constexpr char kSigoff[] = "MainCmd=Sigoff;";
    sendasc(0, kAsControl, kSigoff, sizeof kSigoff - 1, ARBOR_SEND_CONTROL);
    if (const char* name = std::getenv("LOGNAME")) {
      char text[256];
      const int length =
          std::snprintf(text, sizeof text, "MainCmd=%d;id=%s;", 33, name);
      if (length > 0) {
        sendasc(0, kAsAccount, text,
                static_cast<uint32_t>(
                    std::min(length, static_cast<int>(sizeof text) - 1)),
                ARBOR_SEND_CONTROL);
      }
    }
    ARBOR_LOG(2, "%s:UnInitWAN", "SysLogout");
    sys_.wan_state.store(-1, std::memory_order_relaxed);
    UnInitWAN();
  }
  ARBOR_LOG(2, "%s:cleanup wan", "SysLogout");
  rsc_wan_clean();
  return 0;
}

}  // extern "C"

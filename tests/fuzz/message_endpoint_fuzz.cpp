// Any device on the network may post to the delivery endpoints. Whatever the bytes, the answer
// is one a device understands (200 with a result per message, or 400 saying why), a message
// acknowledged as stored is in the store exactly once and a duplicate the second time, and a
// refused request leaves the store as it was.
//
// Input: one byte (bit 0: the inventory endpoint; bit 1: the rest is the body as is), then
// either the body or choices that build a batch: whether the device id is one, then per message
// a sequence number, a time, a text up to the next NUL, a queue and a document around the text.
#include <cstddef>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>

#include "fuzz/fuzz_support.h"
#include "store/intake.h"
#include "store/store.h"

namespace {

using Json = nlohmann::json;

// One store for the run (opening one costs more than a run); each built batch has a device
// of its own, so that counting its rows stays cheap.
ftcstore::Store& TheStore() {
  static std::unique_ptr<ftcstore::Store> store = [] {
    std::string error;
    return ftcstore::OpenStore("sqlite::memory:", ftcstore::OpenMode::kServe, &error);
  }();
  FUZZ_EXPECT(store != nullptr);
  return *store;
}

size_t StoredRows(const std::string& device) {
  size_t n = 0;
  FUZZ_EXPECT(TheStore().Events({device, ""}, [&](const ftcstore::EventRow&) { return ++n; }).ok());
  return n;
}

std::string Document(ftcfuzz::Reader& in, const std::string& text) {
  switch (in.Below(5)) {
    case 0:
      return "<DevInfo><Subsystem Name=\"QV_EVENT_DB\"><Group Name=\"errorLogMsg\"><Field "
             "Name=\"system\">20</Field><Field Name=\"msgNum\">" +
             text + "</Field></Group></Subsystem></DevInfo>";
    case 1:
      return "<DevInfo><Subsystem Name=\"QV_Client\"><Group Name=\"Ready-to-Work\"><Field "
             "Name=\"State\">1</Field><Field Name=\"Reason\">" +
             text + "</Field></Group></Subsystem></DevInfo>";
    case 2:
      return "<DevInfo><Subsystem Name=\"AutoDeploy\"><Group Name=\"Info\"><Field "
             "Name=\"Settings Installed\">" +
             text + "</Field></Group></Subsystem></DevInfo>";
    case 3:
      return "<" + text + "/>";
    default:
      return text;
  }
}

std::string BuildBatch(ftcfuzz::Reader& in) {
  Json messages = Json::array();
  static unsigned runs = 0;
  std::string device = in.Below(8) ? "dev:" + std::to_string(++runs) : "bad/id";
  size_t count = in.Below(6);
  for (size_t i = 0; i < count && !in.Empty(); ++i) {
    Json seq = in.Below(8) == 0 ? Json(-1) : Json(in.Below(4));
    std::string time =
        in.Word("2026-11-22T04:38:17.123456Z 2026-11-22T04:38:17Z 2026-13-01T00:00:00Z");
    std::string text = in.Until(0);
    messages.push_back({{"queue", in.Word("QV_Event_DB QV_CLIENT ../x ~MASTERXQ")},
                        {"seq", seq},
                        {"time", time},
                        {"body", Document(in, text)}});
  }
  // Fuzz texts need not be UTF-8; what the endpoint sees is always JSON text.
  return Json{{"device", device}, {"messages", messages}}.dump(-1, ' ', false,
                                                               Json::error_handler_t::replace);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  ftcfuzz::Reader in(data, size);
  uint8_t mode = in.Byte();
  bool inventory = mode & 1;
  std::string body = (mode & 2) ? in.Rest() : BuildBatch(in);
  ftcstore::Store& store = TheStore();
  Json request = Json::parse(body, nullptr, false);
  std::string device =
      request.is_object() && request["device"].is_string() ? request["device"] : "";
  size_t before = StoredRows(device);
  ftcstore::Answer a =
      inventory ? ftcstore::AcceptInventory(body, store) : ftcstore::AcceptMessages(body, store);
  // The in-memory store always commits: every answer is 200 or the request's own fault.
  FUZZ_EXPECT(a.status == 200 || a.status == 400);
  Json answer = Json::parse(a.body, nullptr, false);
  FUZZ_EXPECT(answer.is_object());
  if (a.status != 200 || inventory) {
    FUZZ_EXPECT(a.status == 200 ? answer["status"] == "stored" : answer["error"].is_string());
    FUZZ_EXPECT(StoredRows(device) == before);
    return 0;
  }
  const Json& results = answer["results"];
  FUZZ_EXPECT(results.is_array() && !results.empty() && results.size() <= ftcstore::kMaxBatch);
  size_t stored = 0;
  for (const Json& r : results) {
    FUZZ_EXPECT(r["status"] == "stored" || r["status"] == "duplicate" ||
                (r["status"] == "rejected" && r["error"].is_string()));
    stored += r["status"] == "stored";
  }
  FUZZ_EXPECT(StoredRows(device) == before + stored);

  // Delivered again, as after a lost answer: nothing new is stored, nothing changes its verdict.
  ftcstore::Answer again = ftcstore::AcceptMessages(body, store);
  Json second = Json::parse(again.body, nullptr, false);
  FUZZ_EXPECT(again.status == 200 && second["results"].size() == results.size());
  for (size_t i = 0; i < results.size(); ++i) {
    const Json& was = results[i]["status"];
    FUZZ_EXPECT(second["results"][i]["status"] == (was == "rejected" ? "rejected" : "duplicate"));
  }
  FUZZ_EXPECT(StoredRows(device) == before + stored);
  return 0;
}

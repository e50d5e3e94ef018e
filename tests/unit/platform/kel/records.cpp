#include "records.h"

#include <functional>

#include "platform/msgfmt.h"

namespace records {

namespace {

using support::s;

Bytes changed(const std::function<void(Bytes&)>& change) {
  Bytes bytes = twoStrings();
  change(bytes);
  return bytes;
}

/// A number at an offset of the record of twoStrings().
template <typename Number>
Malformed with(std::string what, std::size_t offset, Number value) {
  return {std::move(what), changed([&](Bytes& bytes) { put(bytes, offset, value); })};
}

/// Many entries on one long string: sound one by one, hostile together.
Bytes manyOnOneString() {
  constexpr std::size_t kCount = 100;
  const std::vector<KelEmit::Argument> arguments(kCount, KelEmit::NullText{});
  Bytes bytes = support::rawRecord("kel.user.one", arguments, "%s %s");
  bytes.insert(bytes.end(), 1000, 'x');
  bytes.push_back('\0');
  put(bytes, 16, static_cast<std::uint32_t>(bytes.size()));
  for (std::size_t index = 0; index < kCount; ++index) {
    put(bytes, kArrayAt + index * 32 + 8, std::uint64_t{kCount * 32});
  }
  return bytes;
}

}  // namespace

Bytes twoStrings() {
  return support::rawRecord("kel.user.one", {s("ab"), s("cde")}, "%s %s");
}

Bytes ofLength(std::size_t length, const std::string& id) {
  const std::size_t bare = support::rawRecord(id, {}, "m").size();
  return support::rawRecord(id, {}, std::string(length - bare + 1, 'm'));
}

Bytes batchOf(const std::vector<Bytes>& parts) {
  Bytes batch;
  for (const Bytes& part : parts) batch.insert(batch.end(), part.begin(), part.end());
  return batch;
}

std::vector<Malformed> malformed() {
  using U32 = std::uint32_t;
  using U64 = std::uint64_t;
  const auto whole = static_cast<U32>(twoStrings().size());
  return {
      {"shorter than a header", changed([](Bytes& bytes) { bytes.resize(31); })},
      {"a header and nothing else", changed([](Bytes& bytes) {
         bytes.resize(32);
         put(bytes, 16, U32{32});
       })},
      with("length zero", 16, U32{0}),
      with("length one too small", 16, whole - 1),
      with("length one too large", 16, whole + 1),
      with("length beyond all memory", 16, ~U32{0}),
      {"identifier without end", changed([](Bytes& bytes) {
         bytes.resize(44);
         put(bytes, 8, U32{0});
         put(bytes, 12, U32{44});
         put(bytes, 16, U32{44});
         put(bytes, 20, U32{32});
       })},
      with("template in the header", 20, U32{31}),
      with("template at zero", 20, U32{0}),
      with("template behind the record", 20, whole),
      with("template far behind the record", 20, ~U32{0}),
      {"template without end", changed([](Bytes& bytes) {
         bytes.resize(kArrayAt);
         bytes.back() = 'x';
         put(bytes, 8, U32{0});
         put(bytes, 12, static_cast<U32>(kArrayAt));
         put(bytes, 16, static_cast<U32>(kArrayAt));
       })},
      with("arguments in the header", 12, U32{31}),
      with("arguments behind the record", 12, whole + 1),
      with("arguments far behind the record", 12, ~U32{0}),
      with("one entry too many for the area", 8, U32{3}),
      with("entries beyond all memory", 8, ~U32{0}),
      with("entries whose size overflows", 8, U32{0x08000000}),
      with("unknown entry type", kTypeAt, U32{9}),
      with("entry type out of all range", kTypeAt, ~U32{0}),
      with("string in the entries", kValueAt, U64{63}),
      with("string at the area's end", kValueAt, U64{whole - kArrayAt}),
      with("string far behind the area", kValueAt, ~U64{0}),
      {"string without end", changed([](Bytes& bytes) { bytes.back() = 'x'; })},
      with("16-bit string without end", kSecondTypeAt, U32{MSGFMT_ARG_STRING16}),
      with("32-bit string without end", kSecondTypeAt, U32{MSGFMT_ARG_STRING32}),
      {"strings of more bytes than the area", manyOnOneString()},
  };
}

}  // namespace records

#include "kvtrack/devices/serial/ZtSerialText.h"

#include <unicode/ucnv.h>
#include <unicode/ucnv_err.h>
#include <unicode/ustring.h>

#include <memory>

namespace kvtrack {

namespace {

const char* converterName(ZtStringEncoding encoding) {
  switch (encoding) {
    case ZtStringEncoding::ASCII: return "US-ASCII";
    case ZtStringEncoding::UTF8: return "UTF-8";
    case ZtStringEncoding::ISOLatin1: return "ISO-8859-1";
    case ZtStringEncoding::MacRoman: return "macintosh";
  }
  return "US-ASCII";
}

struct ConverterCloser {
  void operator()(UConverter* converter) const { ucnv_close(converter); }
};
using Converter = std::unique_ptr<UConverter, ConverterCloser>;

// A converter that stops at the first byte or character it cannot convert,
// instead of putting a substitute in its place.
Converter strictConverter(ZtStringEncoding encoding) {
  UErrorCode status = U_ZERO_ERROR;
  Converter converter(ucnv_open(converterName(encoding), &status));
  if (U_FAILURE(status)) return nullptr;
  ucnv_setToUCallBack(converter.get(), UCNV_TO_U_CALLBACK_STOP, nullptr, nullptr, nullptr, &status);
  ucnv_setFromUCallBack(converter.get(), UCNV_FROM_U_CALLBACK_STOP, nullptr, nullptr, nullptr, &status);
  return U_SUCCESS(status) ? std::move(converter) : nullptr;
}

std::optional<std::string> utf8FromUtf16(const std::u16string& text) {
  UErrorCode status = U_ZERO_ERROR;
  int32_t length = 0;
  u_strToUTF8(nullptr, 0, &length, text.data(), static_cast<int32_t>(text.size()), &status);
  if (status != U_BUFFER_OVERFLOW_ERROR && U_FAILURE(status)) return std::nullopt;
  std::string result(static_cast<std::size_t>(length), '\0');
  status = U_ZERO_ERROR;
  u_strToUTF8(result.data(), length, nullptr, text.data(), static_cast<int32_t>(text.size()), &status);
  if (U_FAILURE(status)) return std::nullopt;
  return result;
}

std::optional<std::u16string> utf16FromUtf8(std::string_view text) {
  UErrorCode status = U_ZERO_ERROR;
  int32_t length = 0;
  u_strFromUTF8(nullptr, 0, &length, text.data(), static_cast<int32_t>(text.size()), &status);
  if (status != U_BUFFER_OVERFLOW_ERROR && U_FAILURE(status)) return std::nullopt;
  std::u16string result(static_cast<std::size_t>(length), u'\0');
  status = U_ZERO_ERROR;
  u_strFromUTF8(result.data(), length, nullptr, text.data(), static_cast<int32_t>(text.size()), &status);
  if (U_FAILURE(status)) return std::nullopt;
  return result;
}

}  // namespace

std::optional<std::string> decodeSerialText(const std::vector<std::uint8_t>& bytes,
                                            ZtStringEncoding encoding) {
  if (bytes.empty()) return std::string();
  Converter converter = strictConverter(encoding);
  if (!converter) return std::nullopt;
  // No encoding offered here needs more than one UTF-16 unit per byte.
  std::u16string text(bytes.size(), u'\0');
  UErrorCode status = U_ZERO_ERROR;
  const int32_t length = ucnv_toUChars(converter.get(), text.data(), static_cast<int32_t>(text.size()),
                                       reinterpret_cast<const char*>(bytes.data()),
                                       static_cast<int32_t>(bytes.size()), &status);
  if (U_FAILURE(status) && status != U_STRING_NOT_TERMINATED_WARNING) return std::nullopt;
  text.resize(static_cast<std::size_t>(length));
  return utf8FromUtf16(text);
}

std::optional<std::vector<std::uint8_t>> encodeSerialText(std::string_view text,
                                                          ZtStringEncoding encoding) {
  const std::optional<std::u16string> wide = utf16FromUtf8(text);
  if (!wide) return std::nullopt;
  if (wide->empty()) return std::vector<std::uint8_t>();
  Converter converter = strictConverter(encoding);
  if (!converter) return std::nullopt;
  UErrorCode status = U_ZERO_ERROR;
  const int32_t length = ucnv_fromUChars(converter.get(), nullptr, 0, wide->data(),
                                         static_cast<int32_t>(wide->size()), &status);
  if (status != U_BUFFER_OVERFLOW_ERROR && U_FAILURE(status)) return std::nullopt;
  std::vector<std::uint8_t> bytes(static_cast<std::size_t>(length));
  status = U_ZERO_ERROR;
  ucnv_fromUChars(converter.get(), reinterpret_cast<char*>(bytes.data()), length, wide->data(),
                  static_cast<int32_t>(wide->size()), &status);
  if (U_FAILURE(status) && status != U_STRING_NOT_TERMINATED_WARNING) return std::nullopt;
  return bytes;
}

}  // namespace kvtrack

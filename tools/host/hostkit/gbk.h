// hostkit/gbk.h: the host's texts for people. Never fails: a byte or character that has no
// counterpart is written as \xNN.
#pragma once

#include <string>
#include <string_view>

namespace nrpc::hostkit {

std::string Utf8FromGbk(std::string_view gbk);
std::string GbkFromUtf8(std::string_view utf8);

} // namespace nrpc::hostkit

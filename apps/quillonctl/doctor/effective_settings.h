#pragma once

#include <map>
#include <string>

/// The settings that a Dovecot has by its file dovecot.conf and all that this includes.
class EffectiveSettings {
 public:
  explicit EffectiveSettings(std::string file) : file_(std::move(file)) {}

  const std::string& file() const { return file_; }

  /// The value of a setting, empty for one that is set nowhere. With a `protocol`, what holds for
  /// that. Throws `std::runtime_error` when Dovecot cannot read its settings.
  std::string Get(const std::string& key, const std::string& protocol = "");

 private:
  using Values = std::map<std::string, std::string>;

  Values Read(const std::string& protocol) const;

  std::string file_;
  std::map<std::string, Values> by_protocol_;
};

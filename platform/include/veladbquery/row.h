#pragma once

namespace veladbquery {

/// Marks a record that may be inserted as a new row. The statement reads the record's fields
/// itself.
class Insertable {
 public:
  virtual ~Insertable();

 protected:
  Insertable() = default;
  Insertable(const Insertable&) = default;
  Insertable& operator=(const Insertable&) = default;
};

/// Marks a record that may replace the row of its id.
class Updatable {
 public:
  virtual ~Updatable();

 protected:
  Updatable() = default;
  Updatable(const Updatable&) = default;
  Updatable& operator=(const Updatable&) = default;
};

}  // namespace veladbquery

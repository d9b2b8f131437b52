// Streaming parse of job definitions: yajl's events go to a YAJL_Handler; the parts a module owns
// ("source", "options") are parsed by handlers the module makes through its creators.
#pragma once

#include "host/core/json.h"

#include <yajl/yajl_gen.h>

#include <cerrno>
#include <cstddef>
#include <memory>
#include <new>
#include <string>
#include <utility>
#include <vector>

class Job_Source;
class Job_Options;

// Receives the events of one JSON value. Each event answers false to abort the parse.
class YAJL_Handler {
 public:
  virtual ~YAJL_Handler() = default;
  virtual bool on_null() = 0;
  virtual bool on_boolean(bool value) = 0;
  // The number's text as written (integers of any size and decimals keep their precision).
  virtual bool on_number(const char* text, std::size_t length) = 0;
  virtual bool on_string(const char* text, std::size_t length) = 0;
  virtual bool on_start_map() = 0;
  virtual bool on_map_key(const char* text, std::size_t length) = 0;
  virtual bool on_end_map() = 0;
  virtual bool on_start_array() = 0;
  virtual bool on_end_array() = 0;
  // A whole value has been received.
  virtual bool complete() const = 0;
  // What a job part parser built once complete; null for any other handler.
  virtual std::shared_ptr<Job_Source> job_source() const { return nullptr; }
  virtual std::shared_ptr<Job_Options> job_options() const { return nullptr; }
};

// Builds a JSON value from the events.
class JSON_Parser : public YAJL_Handler {
 public:
  bool on_null() override { return add(nullptr); }
  bool on_boolean(bool value) override { return add(value); }
  bool on_number(const char* text, std::size_t length) override;
  bool on_string(const char* text, std::size_t length) override {
    return add(std::string(text, length));
  }
  bool on_start_map() override;
  bool on_map_key(const char* text, std::size_t length) override;
  bool on_end_map() override { return end(); }
  bool on_start_array() override;
  bool on_end_array() override { return end(); }
  bool complete() const override { return done_; }
  // The value; meaningful once complete.
  JSON_Value& value() { return value_; }

 private:
  bool add(JSON_Value v);
  bool end();

  JSON_Value value_;
  std::vector<JSON_Value*> open_;  // containers being filled, innermost last
  std::string key_;
  bool done_ = false;
};

// Feeds `value` to `handler` as the events of its JSON text. False when the handler refuses one.
bool replay_json(const JSON_Value& value, YAJL_Handler& handler);
// Writes `value` through a yajl generator; yajl's status of the first failing call.
yajl_gen_status yajl_gen_json(yajl_gen gen, const JSON_Value& value);

// What a module's parser of a job part produces: the JSON value of the part.
class Job_Source {
 public:
  virtual ~Job_Source() = default;
  virtual void set_value(JSON_Value value) = 0;
  virtual void generate(yajl_gen gen) const = 0;
};

class Job_Options {
 public:
  virtual ~Job_Options() = default;
  virtual void set_value(JSON_Value value) = 0;
  // 0 on success.
  virtual int generate(yajl_gen gen) = 0;
};

// Makes and destroys objects of a module on the host's behalf (allocation and release stay on the
// module's side).
template <class B>
class Object_Creator_T {
 public:
  virtual ~Object_Creator_T() = default;
  // Null with errno ENOMEM when out of memory.
  virtual B* create() = 0;
  virtual void destroy(B* object) = 0;
};

template <class Base, class P>
class Object_Creator_Impl_T : public Base {
 public:
  P* create() override {
    P* p = new (std::nothrow) P;
    if (!p)
      errno = ENOMEM;
    return p;
  }
  void destroy(typename std::remove_pointer<decltype(std::declval<Base&>().create())>::type* object)
      override {
    delete object;
  }
};

template <class T>
class YAJL_Parser : public YAJL_Handler {};

// Parses one job part into a new T (a Job_Source or Job_Options): the whole value is kept.
template <class T>
class Job_JSON_Parser : public YAJL_Parser<T> {
 public:
  Job_JSON_Parser() : result_(new (std::nothrow) T) {}
  bool on_null() override { return parser_.on_null() && store(); }
  bool on_boolean(bool v) override { return parser_.on_boolean(v) && store(); }
  bool on_number(const char* t, std::size_t n) override {
    return parser_.on_number(t, n) && store();
  }
  bool on_string(const char* t, std::size_t n) override {
    return parser_.on_string(t, n) && store();
  }
  bool on_start_map() override { return result_ && parser_.on_start_map(); }
  bool on_map_key(const char* t, std::size_t n) override { return parser_.on_map_key(t, n); }
  bool on_end_map() override { return parser_.on_end_map() && store(); }
  bool on_start_array() override { return result_ && parser_.on_start_array(); }
  bool on_end_array() override { return parser_.on_end_array() && store(); }
  bool complete() const override { return parser_.complete(); }
  std::shared_ptr<T> result() const { return complete() ? result_ : nullptr; }
  std::shared_ptr<Job_Source> job_source() const override {
    if constexpr (std::is_base_of<Job_Source, T>::value)
      return result();
    return nullptr;
  }
  std::shared_ptr<Job_Options> job_options() const override {
    if constexpr (std::is_base_of<Job_Options, T>::value)
      return result();
    return nullptr;
  }

 private:
  bool store() {
    if (!result_)
      return false;
    if (parser_.complete())
      result_->set_value(std::move(parser_.value()));
    return true;
  }

  std::shared_ptr<T> result_;
  JSON_Parser parser_;
};

template <class T>
class Job_Source_Parser : public Job_JSON_Parser<T> {};

using YAJL_Handler_Creator = Object_Creator_T<YAJL_Handler>;

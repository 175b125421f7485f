// The object registry, CoreFoundation and Security as the code-signing
// adapter uses them, and the leak report.

#include <CoreFoundation/CoreFoundation.h>
#include <Security/Security.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <mutex>
#include <sstream>
#include <thread>
#include <unordered_set>
#include <vector>

#include "Objects.hpp"
#include "tarskel/darwinsim/DarwinSim.hpp"

extern "C" int __sanitizer_symbolize_pc(void*, const char*, char*, size_t) __attribute__((weak));

namespace tarskel::darwinsim {
namespace {

struct Registry {
  std::mutex mutex;
  std::unordered_set<const Object*> live;
  CodeIdentity identity;
  Registry() {
    if (const char* text = std::getenv("TARSKEL_DARWIN_SIM_CODE"))
      identity = CodeIdentity::decode(text);
  }
};
Registry& registry() {
  static auto* r = new Registry;  // outlives every static that holds an object
  return *r;
}

std::string where(const void* pc) {
  char text[512] = "";
  if (__sanitizer_symbolize_pc != nullptr) {
    __sanitizer_symbolize_pc(const_cast<void*>(pc), "%f %L", text, sizeof text);
  }
  if (text[0] != '\0') return text;
  std::ostringstream out;
  out << pc;
  return out.str();
}

}  // namespace

void die(const std::string& rule) {
  std::fprintf(stderr, "darwin-sim: %s\n", rule.c_str());
  std::abort();
}

Object::Object(const char* t, const void* at) : type(t), madeAt(at) {
  std::lock_guard lock(registry().mutex);
  registry().live.insert(this);
}
Object::~Object() {
  std::lock_guard lock(registry().mutex);
  registry().live.erase(this);
}

Object* live(const void* object, const char* call) {
  if (object == nullptr) die(std::string(call) + ": NULL passed where an object is required");
  std::lock_guard lock(registry().mutex);
  if (registry().live.count(static_cast<const Object*>(object)) == 0) {
    die(std::string(call) + ": not a live object (released once too often, or never made)");
  }
  return const_cast<Object*>(static_cast<const Object*>(object));
}

void retain(Object* object) {
  if (!object->immortal) ++object->references;
}
void release(Object* object) {
  if (!object->immortal && --object->references == 0) delete object;
}

std::vector<std::string> leaks() {
  std::vector<std::string> out;
  for (int i = 0; i < 200; ++i) {
    out.clear();
    {
      std::lock_guard lock(registry().mutex);
      for (const Object* o : registry().live) {
        if (!o->immortal) out.push_back(std::string(o->type) + " made at " + where(o->madeAt));
      }
    }
    if (out.empty()) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return out;
}

std::string CodeIdentity::encode() const {
  std::ostringstream out;
  out << codeStatus << ' ' << codeYieldsObject << ' ' << staticStatus << ' ' << staticYieldsObject
      << ' ' << requirementCompiles << ' ' << validity << ' ' << appleAnchored << ' ' << infoStatus
      << ' ' << static_cast<int>(info) << ' ' << static_cast<int>(team) << ' ' << teamId;
  return out.str();
}

CodeIdentity CodeIdentity::decode(const std::string& text) {
  CodeIdentity c;
  int i = 0, t = 0;
  std::istringstream in(text);
  in >> c.codeStatus >> c.codeYieldsObject >> c.staticStatus >> c.staticYieldsObject >>
      c.requirementCompiles >> c.validity >> c.appleAnchored >> c.infoStatus >> i >> t;
  std::getline(in >> std::ws, c.teamId);
  if (!in && !in.eof()) die("TARSKEL_DARWIN_SIM_CODE: unreadable code identity: " + text);
  c.info = static_cast<Info>(i);
  c.team = static_cast<Team>(t);
  return c;
}

void setCodeIdentity(const CodeIdentity& identity) {
  std::lock_guard lock(registry().mutex);
  registry().identity = identity;
}
CodeIdentity currentIdentity() {
  std::lock_guard lock(registry().mutex);
  return registry().identity;
}

namespace {

// ---- CoreFoundation ---------------------------------------------------------

enum TypeID : CFTypeID {
  kString = 7,
  kURL,
  kNumber,
  kDictionary,
  kCode,
  kStaticCode,
  kRequirement
};

struct CFObject : Object {
  CFObject(const char* type, CFTypeID i, const void* at) : Object(type, at), id(i) {}
  CFTypeID id;
};
struct String : CFObject {
  String(std::string t, const void* at) : CFObject("CFString", kString, at), text(std::move(t)) {}
  std::string text;
};
struct URL : CFObject {
  URL(std::string p, const void* at) : CFObject("CFURL", kURL, at), path(std::move(p)) {}
  std::string path;
};
struct Number : CFObject {
  Number(std::int64_t v, const void* at) : CFObject("CFNumber", kNumber, at), value(v) {}
  std::int64_t value;
};
struct Dictionary : CFObject {
  explicit Dictionary(const void* at) : CFObject("CFDictionary", kDictionary, at) {}
  ~Dictionary() override {
    for (auto& [k, v] : entries) {
      release(k);
      release(v);
    }
  }
  std::vector<std::pair<CFObject*, CFObject*>> entries;
};
struct Code : CFObject {
  Code(const char* type, CFTypeID i, CodeIdentity c, const void* at)
      : CFObject(type, i, at), identity(std::move(c)) {}
  CodeIdentity identity;
};
struct Requirement : CFObject {
  explicit Requirement(const void* at) : CFObject("SecRequirement", kRequirement, at) {}
  bool anchor = false;
  std::vector<std::string> teams;  // certificate leaf[subject.OU] = "<team>"
};

String* immortalString(const char* text) {
  auto* s = new String(text, nullptr);
  s->immortal = true;
  return s;
}

CFObject* cf(const void* object, const char* call) { return liveAs<CFObject>(object, call); }

}  // namespace

// The one way a code object is made: the status and the object an identity
// gives for this step. Used by XPC for SecCodeCreateWithXPCMessage too.
OSStatus makeCode(const CodeIdentity& identity, bool running, const void* at, CFTypeRef* out) {
  *out = nullptr;
  const OSStatus status = running ? identity.codeStatus : identity.staticStatus;
  if (running ? identity.codeYieldsObject : identity.staticYieldsObject) {
    *out = running ? new Code("SecCode", kCode, identity, at)
                   : new Code("SecStaticCode", kStaticCode, identity, at);
  }
  return status;
}

}  // namespace tarskel::darwinsim

using namespace tarskel::darwinsim;
#define CALLER __builtin_return_address(0)

extern "C" {

const CFAllocatorRef kCFAllocatorDefault = nullptr;
const CFDictionaryKeyCallBacks kCFTypeDictionaryKeyCallBacks = {};
const CFDictionaryValueCallBacks kCFTypeDictionaryValueCallBacks = {};
const CFStringRef kSecGuestAttributePid = reinterpret_cast<CFStringRef>(immortalString("pid"));
const CFStringRef kSecCodeInfoTeamIdentifier =
    reinterpret_cast<CFStringRef>(immortalString("teamid"));

void CFRelease(CFTypeRef object) {
  if (object == nullptr) die("CFRelease(NULL): CFRelease of NULL crashes");
  release(cf(object, "CFRelease"));
}
CFTypeID CFGetTypeID(CFTypeRef object) { return cf(object, "CFGetTypeID")->id; }
CFTypeID CFDictionaryGetTypeID() { return kDictionary; }
CFTypeID CFStringGetTypeID() { return kString; }

CFURLRef CFURLCreateFromFileSystemRepresentation(CFAllocatorRef, const UInt8* buffer,
                                                 CFIndex length, Boolean) {
  if (length <= 0) return nullptr;
  return reinterpret_cast<CFURLRef>(
      new URL(std::string(reinterpret_cast<const char*>(buffer), length), CALLER));
}

CFNumberRef CFNumberCreate(CFAllocatorRef, CFNumberType type, const void* value) {
  if (type != kCFNumberSInt32Type) die("CFNumberCreate: the simulator makes SInt32 numbers only");
  return reinterpret_cast<CFNumberRef>(
      new Number(*static_cast<const std::int32_t*>(value), CALLER));
}

CFStringRef CFStringCreateWithBytes(CFAllocatorRef, const UInt8* bytes, CFIndex length,
                                    CFStringEncoding encoding, Boolean external) {
  if (encoding != kCFStringEncodingUTF8 || external) die("CFStringCreateWithBytes: UTF-8 only");
  return reinterpret_cast<CFStringRef>(
      new String(std::string(reinterpret_cast<const char*>(bytes), length), CALLER));
}

CFDictionaryRef CFDictionaryCreate(CFAllocatorRef, const void** keys, const void** values,
                                   CFIndex count, const CFDictionaryKeyCallBacks* keyCallBacks,
                                   const CFDictionaryValueCallBacks* valueCallBacks) {
  // Other callbacks would make the dictionary hold raw pointers it neither
  // retains nor releases; the adapters pass CF objects only.
  if (keyCallBacks != &kCFTypeDictionaryKeyCallBacks ||
      valueCallBacks != &kCFTypeDictionaryValueCallBacks) {
    die("CFDictionaryCreate: CF objects need the kCFType callbacks");
  }
  auto* d = new Dictionary(CALLER);
  for (CFIndex i = 0; i < count; ++i) {
    CFObject* k = cf(keys[i], "CFDictionaryCreate (key)");
    CFObject* v = cf(values[i], "CFDictionaryCreate (value)");
    retain(k);
    retain(v);
    d->entries.emplace_back(k, v);
  }
  return reinterpret_cast<CFDictionaryRef>(d);
}

const void* CFDictionaryGetValue(CFDictionaryRef dictionary, const void* key) {
  auto* d = liveAs<Dictionary>(dictionary, "CFDictionaryGetValue");
  const auto& text = liveAs<String>(key, "CFDictionaryGetValue (key)")->text;
  for (auto& [k, v] : d->entries) {
    if (auto* s = dynamic_cast<String*>(k); s != nullptr && s->text == text) return v;
  }
  return nullptr;
}

// Apple leaves open when the pointer is available; here it is for ASCII text
// only, so that callers meet both answers.
const char* CFStringGetCStringPtr(CFStringRef string, CFStringEncoding) {
  const auto& text = liveAs<String>(string, "CFStringGetCStringPtr")->text;
  for (unsigned char c : text) {
    if (c >= 0x80) return nullptr;
  }
  return text.c_str();
}
CFIndex CFStringGetLength(CFStringRef string) {
  return static_cast<CFIndex>(liveAs<String>(string, "CFStringGetLength")->text.size());
}
CFIndex CFStringGetMaximumSizeForEncoding(CFIndex length, CFStringEncoding) { return length * 3; }
Boolean CFStringGetCString(CFStringRef string, char* buffer, CFIndex size, CFStringEncoding) {
  const auto& text = liveAs<String>(string, "CFStringGetCString")->text;
  if (static_cast<CFIndex>(text.size()) >= size) return false;
  std::copy(text.begin(), text.end(), buffer);
  buffer[text.size()] = '\0';
  return true;
}

// ---- Security ---------------------------------------------------------------

OSStatus SecCodeCopyGuestWithAttributes(SecCodeRef host, CFDictionaryRef attributes, SecCSFlags,
                                        SecCodeRef* guest) {
  if (host != nullptr) die("SecCodeCopyGuestWithAttributes: the simulator has no code hosts");
  *guest = nullptr;
  const void* pid = attributes ? CFDictionaryGetValue(attributes, kSecGuestAttributePid) : nullptr;
  if (pid == nullptr || CFGetTypeID(pid) != kNumber) return -67065;  // errSecCSNoSuchCode
  CFTypeRef out = nullptr;
  const OSStatus status = makeCode(currentIdentity(), true, CALLER, &out);
  *guest = static_cast<SecCodeRef>(const_cast<void*>(out));
  return status;
}

OSStatus SecStaticCodeCreateWithPath(CFURLRef path, SecCSFlags, SecStaticCodeRef* code) {
  liveAs<URL>(path, "SecStaticCodeCreateWithPath");
  CFTypeRef out = nullptr;
  CodeIdentity identity = currentIdentity();
  identity.staticStatus = identity.codeStatus;
  identity.staticYieldsObject = identity.codeYieldsObject;
  const OSStatus status = makeCode(identity, false, CALLER, &out);
  *code = static_cast<SecStaticCodeRef>(out);
  return status;
}

OSStatus SecCodeCopyStaticCode(SecCodeRef code, SecCSFlags, SecStaticCodeRef* staticCode) {
  auto* running = liveAs<Code>(code, "SecCodeCopyStaticCode");
  if (running->id != kCode) die("SecCodeCopyStaticCode: a static code is not running code");
  CFTypeRef out = nullptr;
  const OSStatus status = makeCode(running->identity, false, CALLER, &out);
  *staticCode = static_cast<SecStaticCodeRef>(out);
  return status;
}

// The grammar the adapters build: clauses joined by "and", each either
// `anchor apple generic` or `certificate leaf[subject.OU] = "<team>"`.
OSStatus SecRequirementCreateWithString(CFStringRef text, SecCSFlags, SecRequirementRef* out) {
  *out = nullptr;
  const std::string source = liveAs<String>(text, "SecRequirementCreateWithString")->text;
  if (!currentIdentity().requirementCompiles) return -67052;  // errSecCSReqInvalid
  auto* r = new Requirement(CALLER);
  std::istringstream in(source);
  for (std::string word; in >> word;) {
    std::string a, b, c;
    if (word == "anchor" && in >> a >> b && a == "apple" && b == "generic") {
      r->anchor = true;
    } else if (word == "certificate" && in >> a >> b >> c && a == "leaf[subject.OU]" && b == "=" &&
               c.size() >= 2 && c.front() == '"' && c.back() == '"') {
      r->teams.push_back(c.substr(1, c.size() - 2));
    } else {
      release(r);
      return -67052;
    }
    if (in >> a && a != "and") {
      release(r);
      return -67052;
    }
  }
  *out = reinterpret_cast<SecRequirementRef>(r);
  return 0;
}

OSStatus SecStaticCodeCheckValidity(SecStaticCodeRef code, SecCSFlags,
                                    SecRequirementRef requirement) {
  const CodeIdentity& identity = liveAs<Code>(code, "SecStaticCodeCheckValidity")->identity;
  if (identity.validity != 0) return identity.validity;
  if (requirement == nullptr) return 0;
  auto* r = liveAs<Requirement>(requirement, "SecStaticCodeCheckValidity (requirement)");
  bool met = !r->anchor || identity.appleAnchored;
  for (const std::string& team : r->teams) {
    met = met && identity.team == CodeIdentity::Team::string && identity.teamId == team;
  }
  return met ? 0 : -67050;  // errSecCSReqFailed
}

// The team identifier is part of the answer only when kSecCSSigningInformation is asked for.
OSStatus SecCodeCopySigningInformation(SecStaticCodeRef code, SecCSFlags flags,
                                       CFDictionaryRef* information) {
  const CodeIdentity& identity = liveAs<Code>(code, "SecCodeCopySigningInformation")->identity;
  *information = nullptr;
  if (identity.info == CodeIdentity::Info::notDictionary) {
    *information = reinterpret_cast<CFDictionaryRef>(new String("not a dictionary", CALLER));
  } else if (identity.info == CodeIdentity::Info::dictionary) {
    auto* d = new Dictionary(CALLER);
    if ((flags & kSecCSSigningInformation) != 0 && identity.team != CodeIdentity::Team::absent) {
      CFObject* value = identity.team == CodeIdentity::Team::string
                            ? static_cast<CFObject*>(new String(identity.teamId, CALLER))
                            : new Number(1, CALLER);
      retain(cf(kSecCodeInfoTeamIdentifier, "SecCodeCopySigningInformation"));
      d->entries.emplace_back(cf(kSecCodeInfoTeamIdentifier, "SecCodeCopySigningInformation"),
                              value);
    }
    *information = reinterpret_cast<CFDictionaryRef>(d);
  }
  return identity.infoStatus;
}

}  // extern "C"

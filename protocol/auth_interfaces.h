// Host-side objects that a protocol which authenticates against a service may
// attach to SuperProtocol. localdisk never sets them.
#pragma once

class JsonObject;
class SuperProtocol;

// Called with the freshly parsed authentication document before tokens are
// read from it (third operation); it may adjust the document in place.
class IAuthDocumentHook {
 public:
  virtual void OnAuthorized(SuperProtocol* protocol) = 0;
  virtual void OnUnauthorized(SuperProtocol* protocol) = 0;
  virtual void OnAuthDocument(JsonObject& document) = 0;

 protected:
  ~IAuthDocumentHook() = default;
};

// Obtains a refreshed authentication document. Refresh returns a heap text (or
// null on failure) that the caller hands back to Free.
class IAuthRefreshProvider {
 public:
  virtual char* Refresh(SuperProtocol* protocol, const char* document) = 0;
  virtual void Free(char* document) = 0;

 protected:
  ~IAuthRefreshProvider() = default;
};

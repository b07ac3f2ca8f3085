// Makes the DOM documents (MSXML3's DOMDocument30) that responses load.
//
// CoCreateInstance looks the class up in the registry and loads msxml3.dll
// into the calling apartment every time; each message object's apartment
// lives for one exchange, so that work would be done (and, when the thread
// had no other apartment, undone) once per exchange. Instead the module asks
// msxml3.dll for the class's factory once, keeps it, and makes each document
// with it. DOMDocument30 is registered with the threading model "Both": its
// factory may be called from any apartment, and each document is used only in
// the apartment (and thread) of the message object that made it.
//
// The factory and one reference to msxml3.dll are taken on first use and
// kept until the process ends: they are not released at detach, where the
// module frees nothing (and FreeLibrary must not be called under the loader
// lock). msxml3.dll thus stays loaded after the add-in is unloaded, as it does
// whenever any component of the host uses MSXML. When the factory cannot be
// had, each document is made with CoCreateInstance as before.
#pragma once

#include <windows.h>
#include <msxml2.h>

namespace DocumentFactory {

// A new, empty document for the calling thread's apartment; COM must be
// initialised on the thread. The result of the creation call.
HRESULT Create(IXMLDOMDocument2** document);

}  // namespace DocumentFactory

# AE_SANITIZE=address builds with AddressSanitizer and UndefinedBehaviorSanitizer,
# AE_SANITIZE=thread with ThreadSanitizer. Both keep frame pointers for readable reports.
if(AE_SANITIZE STREQUAL "address")
  set(_ae_san -fsanitize=address,undefined -fno-sanitize-recover=undefined -fno-omit-frame-pointer)
elseif(AE_SANITIZE STREQUAL "thread")
  set(_ae_san -fsanitize=thread -fno-omit-frame-pointer)
elseif(NOT AE_SANITIZE STREQUAL "")
  message(FATAL_ERROR "AE_SANITIZE must be empty, 'address' or 'thread'")
endif()
if(_ae_san)
  add_compile_options(${_ae_san})
  add_link_options(${_ae_san})
endif()

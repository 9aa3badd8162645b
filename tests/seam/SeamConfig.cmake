# A second platform and radio, as small as the service allows: what a maker's package would be.
#
#   cmake -DKOVA_PLATFORM_PACKAGE=Seam -DSeam_DIR=tests/seam ...
#
# Nothing of ours is in it but the definitions of the messages. The headers that the service asks
# for lead to the two that there are; one that it asks for anew gets a line here, and what it uses
# of it a line there.
set(platform_headers
  AsyncCallbackHandle Busy ConcurrentQueue ConfigReaderIF FileSize ForkAndExec InterfaceFactory LogClient
  MicroserviceIF OfficerList Paths RegularFile ServiceIPC ServiceModel ServiceRunner
  TargetAttributes UniqueFunction VersionInfo)
set(radio_headers RadioProtocol)

set(include ${CMAKE_BINARY_DIR}/seam)
foreach(header ${platform_headers})
  file(CONFIGURE OUTPUT ${include}/zelt/${header}.h CONTENT "#include \"Platform.h\"\n")
endforeach()
foreach(header ${radio_headers})
  file(CONFIGURE OUTPUT ${include}/orka/${header}.h CONTENT "#include \"Radio.h\"\n")
endforeach()

set(definitions ${CMAKE_CURRENT_LIST_DIR}/../../common/lib/ProtoBuf)
set(generated)
foreach(proto Kova Collaboration MediaStreamNotification zelt)
  add_custom_command(OUTPUT ${include}/${proto}.pb.cc ${include}/${proto}.pb.h
    COMMAND protobuf::protoc -I${definitions} --cpp_out=${include} ${definitions}/${proto}.proto
    DEPENDS ${definitions}/${proto}.proto VERBATIM)
  list(APPEND generated ${include}/${proto}.pb.cc ${include}/${proto}.pb.h)
endforeach()

add_library(seam STATIC ${CMAKE_CURRENT_LIST_DIR}/Platform.cpp ${CMAKE_CURRENT_LIST_DIR}/Radio.cpp
  ${generated})
target_include_directories(seam SYSTEM PUBLIC ${include})
target_include_directories(seam PUBLIC ${CMAKE_CURRENT_LIST_DIR})
target_link_libraries(seam PUBLIC protobuf::libprotobuf-lite Threads::Threads)
foreach(target zelt::ServiceModel zelt::ServiceIPC zelt::Config zelt::Device zelt::Logger
    zelt::ProtoBuf zelt::Process orka::RadioProtocol)
  add_library(${target} ALIAS seam)
endforeach()

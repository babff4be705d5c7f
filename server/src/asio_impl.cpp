// The one translation unit that compiles Asio; everything else sees declarations only, which keeps compiles
// short. See BOOST_ASIO_SEPARATE_COMPILATION in the build.
#pragma GCC diagnostic ignored "-Wconversion"
#pragma GCC diagnostic ignored "-Wshadow"
#pragma GCC diagnostic ignored "-Wuse-after-free"
#include <boost/asio/impl/src.hpp>
#include <boost/asio/ssl/impl/src.hpp>

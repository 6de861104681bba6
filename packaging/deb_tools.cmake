# Read by cpack before it makes a package. Without these tools it would leave the libraries out of
# the package's dependencies, or stop without saying what to install.
foreach(tool dpkg-shlibdeps file)
  find_program(found_${tool} ${tool})
  if(NOT found_${tool})
    message(FATAL_ERROR "cpack needs ${tool}: install the packages dpkg-dev and file")
  endif()
endforeach()

# The artwork is kept as drawings; what Windows wants is made from them in the build, the same bits every time.
foreach(tool rsvg-convert convert icotool)
  string(MAKE_C_IDENTIFIER "RASTERISE_${tool}" variable)
  string(TOUPPER "${variable}" variable)
  find_program(${variable} ${tool})
  if(NOT ${variable})
    message(FATAL_ERROR "${tool} is needed to make the artwork and was not found. Run scripts/setup, it installs what is missing.")
  endif()
endforeach()

# rasterise_banner(<svg> <out.bmp>): 640 x 192 pixels, 24 bits each, with the plain 40-byte header. LoadBitmap takes
# nothing with transparency or a newer header for granted.
function(rasterise_banner svg out)
  cmake_path(ABSOLUTE_PATH svg)
  cmake_path(ABSOLUTE_PATH out BASE_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR})
  cmake_path(GET out PARENT_PATH dir)
  cmake_path(GET out FILENAME name)
  file(MAKE_DIRECTORY ${dir})
  add_custom_command(OUTPUT ${out}
    COMMAND ${RASTERISE_RSVG_CONVERT} --width 640 --height 192 --output ${out}.png ${svg}
    COMMAND ${RASTERISE_CONVERT} ${out}.png -alpha off -type TrueColor -compress None BMP3:${out}
    BYPRODUCTS ${out}.png
    DEPENDS ${svg}
    COMMENT "Drawing ${name}"
    VERBATIM)
endfunction()

# rasterise_icon(<svg> <small svg> <out.ico>): the sizes that Windows asks for at scales up to 200 %, and 256 pixels, from
# which it makes all others (128 pixels of their own would take 66 KB). Below 32 pixels a drawing of its own is used,
# because the details of the full one blur there. 256 pixels are stored as PNG, as bitmap they alone would be a quarter of
# a megabyte; the smaller ones are not, since only that size is promised to be read in that form.
function(rasterise_icon svg smallSvg out)
  cmake_path(ABSOLUTE_PATH svg)
  cmake_path(ABSOLUTE_PATH smallSvg)
  cmake_path(ABSOLUTE_PATH out BASE_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR})
  cmake_path(GET out PARENT_PATH dir)
  cmake_path(GET out FILENAME name)
  file(MAKE_DIRECTORY ${dir})
  set(draw)
  set(pictures)
  set(arguments)
  foreach(size 16 20 24 32 40 48 64 256)
    set(source ${svg})
    if(size LESS 32)
      set(source ${smallSvg})
    endif()
    set(picture ${out}.${size}.png)
    list(APPEND draw COMMAND ${RASTERISE_RSVG_CONVERT} --width ${size} --height ${size} --output ${picture} ${source})
    list(APPEND pictures ${picture})
    if(size EQUAL 256)
      list(APPEND arguments --raw=${picture})
    else()
      list(APPEND arguments ${picture})
    endif()
  endforeach()
  add_custom_command(OUTPUT ${out}
    ${draw}
    COMMAND ${RASTERISE_ICOTOOL} --create --output=${out} ${arguments}
    BYPRODUCTS ${pictures}
    DEPENDS ${svg} ${smallSvg}
    COMMENT "Drawing ${name}"
    VERBATIM)
endfunction()

# The rooms of the library, from the ground up: what a room may include is what its line names, and nothing else is on its
# include path. docs/pictures/rooms.svg is drawn from these lines.
kov_room(base     IS "log, shared fields, locks, arithmetic")
kov_room(platform IS "seams to the system: USB, settings, time, threads" BELOW base SOURCES ${KOV_PLATFORM})
kov_room(usb      IS "vendor requests, endpoints, firmware" BELOW platform base)
kov_room(imaging  IS "pixels: views in, views out" BELOW base)
kov_room(thermal  IS "what a reading means, regulator steps" BELOW base)
kov_room(automation IS "decisions on exposure and balance" BELOW base)
kov_room(exchange IS "frames from the capture thread to the reader" BELOW platform base)
kov_room(camera   IS "state of a camera, controls, cooler, dark frames" BELOW exchange automation thermal imaging usb platform base)
kov_room(capture  IS "capture loop, long exposures, delivery" BELOW camera exchange imaging usb platform base)
kov_room(sensors  IS "the models: traits, registers, laws" BELOW capture camera exchange automation imaging usb platform base SOURCES *)
kov_room(api      IS "the 26 exported functions" BELOW sensors capture camera exchange imaging usb platform base)

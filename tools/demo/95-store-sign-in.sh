# Signing in to the store and the cloud: each step is another application, started by the one
# before with the sign-in's state on its command line. The road depends on the device's partner
# and flags.

section "Signing in without a partner: ask the user, the store's login, then the cloud"
show "qvtool auth state"
show "qvtool auth start CloudLogin --login reader@example.com"
show "qvtool auth logout"

section "A partner of the GQD family (flags 0 and 3): the store opens, then the cloud signs in"
show "qvtool host partner 15"
show "qvtool host flag 0 on && qvtool host flag 3 on"
show "qvtool auth start StoreLoginFromSettings"
show "qvtool auth start StartStore"
show "qvtool auth logout"

section "A partner with native sign-in (flags 2 and 3); the user cancels the store's login"
show "qvtool host partner 16 && qvtool host flag 0 off && qvtool host flag 2 on"
show "qvtool host native-auth on"
show "qvtool auth start StartStore --answer login=cancel"
show "qvtool auth start StartStore"
show "qvtool auth state"
